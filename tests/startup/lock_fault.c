// A fault seam for data protection, preloaded into a real process beside the library. It stands
// in front of the C library's open():
//   CORVELSTOW_LOCKED_FOLDER=path   files under path refuse to open (ENOKEY), as a container's
//                                   files do before the device's first unlock, or as those of
//                                   a locked fscrypt folder do
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

int open(const char* path, int flags, ...) {
  int mode = 0;
  if (flags & (O_CREAT | O_TMPFILE)) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, int);
    va_end(arguments);
  }
  const char* locked = getenv("CORVELSTOW_LOCKED_FOLDER");
  if (locked && *locked && strncmp(path, locked, strlen(locked)) == 0) {
    errno = ENOKEY;
    return -1;
  }
  // dlsym returns functions as object pointers; POSIX guarantees the round trip.
  int (*real_open)(const char*, int, ...);
  *(void**)(&real_open) = dlsym(RTLD_NEXT, "open");
  return real_open(path, flags, mode);
}
