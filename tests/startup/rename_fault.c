// A fault seam for the launch-time swap and the restore staging, preloaded into a real process
// beside the library (or linked into a test). It stands in front of the C library's rename(),
// renameat2() and mkdir():
//   CORVELSTOW_FAIL_RENAMES=a,b   renames whose source or target path ends in a or b (a last
//                                 component, or several: "Previous-new/Library/x") fail (EIO)
//   CORVELSTOW_KILL_AT_RENAME=N   the process is killed (SIGKILL) as it asks for its Nth rename
//   CORVELSTOW_SLOW_RENAMES=MS    every rename first waits MS milliseconds
//   CORVELSTOW_FAIL_MKDIRS=a,b    mkdir of a path ending in a or b fails (ENOSPC), as on a full
//   disk
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

// Whether `path` ends in one of the comma-separated pieces of `list`, at a "/" boundary.
static int listed(const char* list, const char* path) {
  size_t length = strlen(path);
  for (const char* p = list; p && *p;) {
    const char* end = strchr(p, ',');
    size_t piece = end ? (size_t)(end - p) : strlen(p);
    if (piece <= length && strncmp(path + length - piece, p, piece) == 0 &&
        (piece == length || path[length - piece - 1] == '/')) {
      return 1;
    }
    p = end ? end + 1 : NULL;
  }
  return 0;
}

// The faults every rename meets; nonzero when this one is to fail.
static int renameFault(const char* from, const char* to) {
  static int calls = 0;
  const char* kill_at = getenv("CORVELSTOW_KILL_AT_RENAME");
  if (kill_at && ++calls == atoi(kill_at)) raise(SIGKILL);
  const char* slow = getenv("CORVELSTOW_SLOW_RENAMES");
  if (slow) {
    long ms = atol(slow);
    struct timespec pause = {ms / 1000, (ms % 1000) * 1000000L};
    nanosleep(&pause, NULL);
  }
  const char* fail = getenv("CORVELSTOW_FAIL_RENAMES");
  if (listed(fail, from) || listed(fail, to)) {
    errno = EIO;
    return 1;
  }
  return 0;
}

int rename(const char* from, const char* to) {
  if (renameFault(from, to)) return -1;
  // dlsym returns functions as object pointers; POSIX guarantees the round trip.
  int (*real)(const char*, const char*);
  *(void**)(&real) = dlsym(RTLD_NEXT, "rename");
  return real(from, to);
}

int renameat2(int fromFd, const char* from, int toFd, const char* to, unsigned int flags) {
  if (renameFault(from, to)) return -1;
  int (*real)(int, const char*, int, const char*, unsigned int);
  *(void**)(&real) = dlsym(RTLD_NEXT, "renameat2");
  return real(fromFd, from, toFd, to, flags);
}

int mkdir(const char* path, mode_t mode) {
  if (listed(getenv("CORVELSTOW_FAIL_MKDIRS"), path)) {
    errno = ENOSPC;
    return -1;
  }
  int (*real)(const char*, mode_t);
  *(void**)(&real) = dlsym(RTLD_NEXT, "mkdir");
  return real(path, mode);
}
