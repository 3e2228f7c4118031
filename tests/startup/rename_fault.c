// A fault seam for the launch-time swap, preloaded into a real process beside the library.
// It stands in front of the C library's rename():
//   CORVELSTOW_FAIL_RENAMES=a,b   renames whose source's last component is a or b fail (EIO)
//   CORVELSTOW_KILL_AT_RENAME=N   the process is killed (SIGKILL) as it asks for its Nth rename
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int listed(const char* list, const char* name) {
  size_t length = strlen(name);
  for (const char* p = list; p && *p;) {
    const char* end = strchr(p, ',');
    size_t piece = end ? (size_t)(end - p) : strlen(p);
    if (piece == length && strncmp(p, name, length) == 0) return 1;
    p = end ? end + 1 : NULL;
  }
  return 0;
}

int rename(const char* from, const char* to) {
  static int calls = 0;
  const char* kill_at = getenv("CORVELSTOW_KILL_AT_RENAME");
  if (kill_at && ++calls == atoi(kill_at)) raise(SIGKILL);

  const char* slash = strrchr(from, '/');
  if (listed(getenv("CORVELSTOW_FAIL_RENAMES"), slash ? slash + 1 : from)) {
    errno = EIO;
    return -1;
  }
  // dlsym returns functions as object pointers; POSIX guarantees the round trip.
  int (*real_rename)(const char*, const char*);
  *(void**)(&real_rename) = dlsym(RTLD_NEXT, "rename");
  return real_rename(from, to);
}
