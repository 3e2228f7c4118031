// A fault seam for the backup, preloaded into a real `corvelstow backup`. It stands in front of
// the C library's calls that change files (write, rename, unlink) and of openat:
//   CORVELSTOW_KILL_AT_CHANGE=N     the process is killed (SIGKILL) as it asks for its Nth change
//   CORVELSTOW_RELINK_AT_CHANGE=N   just before its Nth change, the path CORVELSTOW_RELINK is
//                                   replaced by a symbolic link to CORVELSTOW_RELINK_TARGET
//   CORVELSTOW_FAIL_OPEN=NAME       opening anything named NAME (last component) fails with the
//                                   errno CORVELSTOW_FAIL_OPEN_ERRNO
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

// The C library's own `name`, declared as `real`. dlsym returns functions as object pointers;
// POSIX guarantees the round trip.
#define REAL(name)        \
  __typeof__(&name) real; \
  *(void**)(&real) = dlsym(RTLD_NEXT, #name)

static int atChange(const char* variable, int change) {
  const char* value = getenv(variable);
  return value && atoi(value) == change;
}

// Counts one change and does what the environment asks for at it.
static void change(void) {
  static int changes = 0;
  int now = __atomic_add_fetch(&changes, 1, __ATOMIC_SEQ_CST);
  if (atChange("CORVELSTOW_KILL_AT_CHANGE", now)) raise(SIGKILL);
  if (atChange("CORVELSTOW_RELINK_AT_CHANGE", now)) {
    const char* path = getenv("CORVELSTOW_RELINK");
    char aside[4096];
    snprintf(aside, sizeof aside, "%s.replaced", path);
    REAL(rename);
    real(path, aside);
    symlink(getenv("CORVELSTOW_RELINK_TARGET"), path);
  }
}

ssize_t write(int fd, const void* bytes, size_t count) {
  change();
  REAL(write);
  return real(fd, bytes, count);
}

int rename(const char* from, const char* to) {
  change();
  REAL(rename);
  return real(from, to);
}

int unlink(const char* path) {
  change();
  REAL(unlink);
  return real(path);
}

int unlinkat(int folder, const char* path, int flags) {
  change();
  REAL(unlinkat);
  return real(folder, path, flags);
}

int openat(int folder, const char* path, int flags, ...) {
  mode_t mode = 0;
  if (flags & (O_CREAT | O_TMPFILE)) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  const char* failing = getenv("CORVELSTOW_FAIL_OPEN");
  const char* slash = strrchr(path, '/');
  if (failing && strcmp(slash ? slash + 1 : path, failing) == 0) {
    errno = atoi(getenv("CORVELSTOW_FAIL_OPEN_ERRNO"));
    return -1;
  }
  REAL(openat);
  return real(folder, path, flags, mode);
}
