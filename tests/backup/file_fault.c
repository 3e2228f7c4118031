// A fault seam for the backup, preloaded into a real `corvelstow backup`. It stands in front of
// the C library's calls that change files (write, rename, unlink) and of openat:
//   CORVELSTOW_KILL_AT_CHANGE=N     the process is killed (SIGKILL) as it asks for its Nth change
//   CORVELSTOW_CHANGE_AT=N          just before its Nth change, as a running app would, changes
//                                   the path CORVELSTOW_CHANGE_PATH as CORVELSTOW_CHANGE says:
//                                   "remove" (a file), "rename" (to CORVELSTOW_CHANGE_TO), "grow"
//                                   (by 1 MiB) or "relink" (set aside, and a symbolic link to
//                                   CORVELSTOW_CHANGE_TO put in its place)
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

// Changes the container as CORVELSTOW_CHANGE says, through the C library's own calls.
static void changeContainer(void) {
  const char* how = getenv("CORVELSTOW_CHANGE");
  const char* path = getenv("CORVELSTOW_CHANGE_PATH");
  const char* to = getenv("CORVELSTOW_CHANGE_TO");
  REAL(rename);
  if (strcmp(how, "remove") == 0) {
    REAL(unlink);
    real(path);
  } else if (strcmp(how, "rename") == 0) {
    real(path, to);
  } else if (strcmp(how, "grow") == 0) {
    static char more[1 << 20];
    memset(more, 'g', sizeof more);
    REAL(write);
    int fd = open(path, O_WRONLY | O_APPEND);
    real(fd, more, sizeof more);
    close(fd);
  } else if (strcmp(how, "relink") == 0) {
    char aside[4096];
    snprintf(aside, sizeof aside, "%s.replaced", path);
    real(path, aside);
    symlink(to, path);
  }
}

// Counts one change and does what the environment asks for at it.
static void change(void) {
  static int changes = 0;
  int now = __atomic_add_fetch(&changes, 1, __ATOMIC_SEQ_CST);
  if (atChange("CORVELSTOW_KILL_AT_CHANGE", now)) raise(SIGKILL);
  if (atChange("CORVELSTOW_CHANGE_AT", now)) changeContainer();
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
