// A fault seam for the free-space check, preloaded into a real process beside the library:
//   CORVELSTOW_FREE_BYTES=N   statvfs reports about N bytes free (whole blocks) on every volume
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <sys/statvfs.h>

int statvfs(const char* path, struct statvfs* volume) {
  // dlsym returns functions as object pointers; POSIX guarantees the round trip.
  int (*real_statvfs)(const char*, struct statvfs*);
  *(void**)(&real_statvfs) = dlsym(RTLD_NEXT, "statvfs");
  int result = real_statvfs(path, volume);
  const char* free_bytes = getenv("CORVELSTOW_FREE_BYTES");
  if (result == 0 && free_bytes && volume->f_frsize > 0) {
    volume->f_bavail = strtoull(free_bytes, NULL, 10) / volume->f_frsize;
  }
  return result;
}
