// The fault seam: preloaded (LD_PRELOAD) into a real process, it stands in front of the C
// library's calls that change files, open files, read folders and lock, and makes one of them
// fail, kills the process at one, changes the container at one as a running app would, counts
// them, or records which files were written and not synced since.
//
// Each call belongs to one kind:
//   rename  rename, renameat, renameat2          unlink  unlink, unlinkat, remove
//   mkdir   mkdir, mkdirat                       create  open, openat, mkstemp (creating)
//   write   write, pwrite, ftruncate             sync    fsync, syncfs
//   close   close                                open    open, openat (every one)
//   readdir readdir                              lock    flock
// write, sync and close count only for descriptors that a counted call opened for writing, so
// that the process's own output and the reading of files are left out. `change` stands for every
// kind from rename to close, in the order the calls come.
//
//   CORVELSTOW_FAIL=RULE;RULE...   each RULE is KIND#N (the Nth call of that kind),
//                                  KIND@PIECE,PIECE... (every call whose path, either path of a
//                                  rename, ends in a piece at a "/"), or KIND@PIECE...#N (the Nth
//                                  of those), optionally followed by =ERRNO; by default ENOSPC
//                                  for write, create and mkdir, EWOULDBLOCK for lock, EACCES for
//                                  open, else EIO. A failed close still closes, as on Linux.
//   CORVELSTOW_KILL=RULE           the process is killed (SIGKILL) as it asks for that call
//   CORVELSTOW_CHANGE_AT=RULE      just before that call, CORVELSTOW_CHANGE_PATH is changed as
//                                  CORVELSTOW_CHANGE says: "remove" (a file), "rename" (to
//                                  CORVELSTOW_CHANGE_TO), "grow" (by 1 MiB) or "relink" (renamed
//                                  to PATH.replaced, a symbolic link to CORVELSTOW_CHANGE_TO put
//                                  in its place)
//   CORVELSTOW_LOCKED_FOLDER=PATH  files under PATH refuse to open (ENOKEY), as a container's
//                                  files do before the device's first unlock
//   CORVELSTOW_FREE_BYTES=N        statvfs reports about N bytes free (whole blocks)
//   CORVELSTOW_COUNTS=FILE         at exit, or before a kill, how many calls of each kind were
//                                  made ("rename 12" lines)
//   CORVELSTOW_UNSYNCED=FILE       at exit, or before a kill, the files written and not synced
//                                  since ("DEVICE INODE" lines): what a power cut may empty
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

// The kinds up to kChange are changes.
enum Kind { kRename, kUnlink, kMkdir, kCreate, kWrite, kSync, kClose, kChange, kOpen, kDir, kLock };
#define kKinds (kLock + 1)
static const char* const kKindNames[] = {"rename", "unlink", "mkdir", "create",  "write", "sync",
                                         "close",  "change", "open",  "readdir", "lock"};
static const int kDefaultErrno[] = {EIO, EIO, ENOSPC, ENOSPC, ENOSPC,     EIO,
                                    EIO, 0,   EACCES, EIO,    EWOULDBLOCK};

// The C library's own `name`, declared as `real`. dlsym returns functions as object pointers;
// POSIX guarantees the round trip.
#define REAL(name)               \
  static __typeof__(&name) real; \
  if (!real) *(void**)(&real) = dlsym(RTLD_NEXT, #name)

static int calls[kKinds];

// Descriptors opened for writing by a counted call, with the file they opened.
#define kMostFds 4096
static struct Tracked {
  char used;
  dev_t device;
  ino_t inode;
} tracked[kMostFds];

// Files written and not synced since, by device and inode; a slot whose inode is 0 is free.
#define kMostDirty 65536
static struct Dirty {
  dev_t device;
  ino_t inode;
} dirty[kMostDirty];
static int dirtyUsed;  // the slots from here on have never been used
static int dirtyLock;

static void lockDirty(void) {
  while (__atomic_exchange_n(&dirtyLock, 1, __ATOMIC_ACQUIRE)) {
  }
}
static void unlockDirty(void) { __atomic_store_n(&dirtyLock, 0, __ATOMIC_RELEASE); }

static void markDirty(dev_t device, ino_t inode, int isDirty) {
  lockDirty();
  int freeSlot = -1;
  for (int i = 0; i < dirtyUsed; ++i) {
    if (dirty[i].inode == inode && dirty[i].device == device) {
      if (!isDirty) dirty[i].inode = 0;
      unlockDirty();
      return;
    }
    if (dirty[i].inode == 0 && freeSlot < 0) freeSlot = i;
  }
  if (isDirty && freeSlot < 0 && dirtyUsed < kMostDirty) freeSlot = dirtyUsed++;
  if (isDirty && freeSlot >= 0) dirty[freeSlot] = (struct Dirty){device, inode};
  unlockDirty();
}

static void cleanAll(void) {
  lockDirty();
  memset(dirty, 0, sizeof dirty);
  dirtyUsed = 0;
  unlockDirty();
}

// Writes the counts and the unsynced files where the environment asks for them.
static void report(void) {
  REAL(open);
  const char* counts = getenv("CORVELSTOW_COUNTS");
  if (counts && *counts) {
    FILE* out = fdopen(real(counts, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), "w");
    for (int kind = 0; out && kind < kKinds; ++kind) {
      fprintf(out, "%s %d\n", kKindNames[kind], __atomic_load_n(&calls[kind], __ATOMIC_SEQ_CST));
    }
    if (out) fclose(out);
  }
  const char* unsynced = getenv("CORVELSTOW_UNSYNCED");
  if (unsynced && *unsynced) {
    FILE* out = fdopen(real(unsynced, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), "w");
    lockDirty();
    for (int i = 0; out && i < dirtyUsed; ++i) {
      if (dirty[i].inode) {
        fprintf(out, "%lu %lu\n", (unsigned long)dirty[i].device, (unsigned long)dirty[i].inode);
      }
    }
    unlockDirty();
    if (out) fclose(out);
  }
}

__attribute__((destructor)) static void reportAtExit(void) { report(); }

// Whether `path` ends in one of the comma-separated pieces of `list` (up to `end`), at a "/".
static int listed(const char* list, const char* end, const char* path) {
  if (!path) return 0;
  size_t length = strlen(path);
  for (const char* p = list; p < end;) {
    const char* comma = memchr(p, ',', (size_t)(end - p));
    size_t piece = (size_t)((comma ? comma : end) - p);
    if (piece && piece <= length && strncmp(path + length - piece, p, piece) == 0 &&
        (piece == length || path[length - piece - 1] == '/')) {
      return 1;
    }
    p = comma ? comma + 1 : end;
  }
  return 0;
}

// How many calls each rule of each variable has matched, for KIND@PIECES#N.
#define kMostRules 16
static int ruleCalls[3][kMostRules];

// Whether a rule of `variable` (the `slot`th of three; RULE;RULE...) names this call: the
// `number`th of `kind`, or one on `path` or `other` (the Nth of those, with #N; every rule
// counts its own). The errno a matching rule gives goes to `code`.
static int ruled(const char* variable, int slot, enum Kind kind, int number, int changeNumber,
                 const char* path, const char* other, int* code) {
  const char* rules = getenv(variable);
  int index = 0, any = 0;
  for (const char* rule = rules; rule && *rule; ++index) {
    const char* end = strchr(rule, ';');
    if (!end) end = rule + strlen(rule);
    const char* equals = memchr(rule, '=', (size_t)(end - rule));
    const char* body = equals ? equals : end;
    const char* hash = memchr(rule, '#', (size_t)(body - rule));
    size_t nameLength = strcspn(rule, "#@");
    int matched = 0;
    if (strncmp(rule, "change#", 7) == 0) {
      matched = atoi(rule + 7) == changeNumber;
    } else if (nameLength < (size_t)(body - rule) &&
               strncmp(rule, kKindNames[kind], nameLength) == 0 &&
               kKindNames[kind][nameLength] == '\0') {
      if (rule[nameLength] == '@') {
        const char* pieces = rule + nameLength + 1;
        const char* piecesEnd = hash ? hash : body;
        matched = listed(pieces, piecesEnd, path) || listed(pieces, piecesEnd, other);
        if (matched && hash && index < kMostRules) {
          matched =
              __atomic_add_fetch(&ruleCalls[slot][index], 1, __ATOMIC_SEQ_CST) == atoi(hash + 1);
        }
      } else {
        matched = atoi(rule + nameLength + 1) == number;
      }
    }
    if (matched && code && equals) *code = atoi(equals + 1);
    any = any || matched;
    rule = *end ? end + 1 : end;
  }
  return any;
}

// Changes the container as CORVELSTOW_CHANGE says, through the C library's own calls.
static void changeContainer(void) {
  const char* how = getenv("CORVELSTOW_CHANGE");
  const char* path = getenv("CORVELSTOW_CHANGE_PATH");
  const char* to = getenv("CORVELSTOW_CHANGE_TO");
  if (!how || !path) return;
  if (strcmp(how, "remove") == 0) {
    REAL(unlink);
    real(path);
  } else if (strcmp(how, "rename") == 0) {
    REAL(rename);
    real(path, to);
  } else if (strcmp(how, "grow") == 0) {
    static char more[1 << 20];
    memset(more, 'g', sizeof more);
    int fd;
    {
      REAL(open);
      fd = real(path, O_WRONLY | O_APPEND);
    }
    {
      REAL(write);
      real(fd, more, sizeof more);
    }
    REAL(close);
    real(fd);
  } else if (strcmp(how, "relink") == 0) {
    char aside[PATH_MAX];
    snprintf(aside, sizeof aside, "%s.replaced", path);
    REAL(rename);
    real(path, aside);
    symlink(to, path);
  }
}

// Counts one call and does what the environment asks for at it; nonzero, with errno set, when
// the call is to fail.
static int fault(enum Kind kind, const char* path, const char* other) {
  int number = __atomic_add_fetch(&calls[kind], 1, __ATOMIC_SEQ_CST);
  int changeNumber = kind < kChange ? __atomic_add_fetch(&calls[kChange], 1, __ATOMIC_SEQ_CST) : 0;
  if (ruled("CORVELSTOW_KILL", 0, kind, number, changeNumber, path, other, NULL)) {
    report();
    raise(SIGKILL);
  }
  if (ruled("CORVELSTOW_CHANGE_AT", 1, kind, number, changeNumber, path, other, NULL)) {
    changeContainer();
  }
  int code = kDefaultErrno[kind];
  if (ruled("CORVELSTOW_FAIL", 2, kind, number, changeNumber, path, other, &code)) {
    errno = code;
    return 1;
  }
  return 0;
}

// The path of descriptor `fd` (a folder for a relative name), for matching by path.
static const char* pathOf(int fd, const char* name, char* buffer) {
  if (name && (name[0] == '/' || fd == AT_FDCWD)) return name;
  char link[64];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  ssize_t n = readlink(link, buffer, PATH_MAX - 1);
  if (n < 0) return name;
  buffer[n] = '\0';
  if (name) snprintf(buffer + n, (size_t)(PATH_MAX - n), "/%s", name);
  return buffer;
}

static int isTracked(int fd) { return fd >= 0 && fd < kMostFds && tracked[fd].used; }

static void track(int fd) {
  struct stat info;
  if (fd < 0 || fd >= kMostFds || fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) return;
  tracked[fd] = (struct Tracked){1, info.st_dev, info.st_ino};
}

static int fdFault(enum Kind kind, int fd) {
  if (!isTracked(fd)) return 0;
  char buffer[PATH_MAX];
  return fault(kind, pathOf(fd, NULL, buffer), NULL);
}

static void wrote(int fd) {
  if (isTracked(fd)) markDirty(tracked[fd].device, tracked[fd].inode, 1);
}

static int writes(int flags) { return (flags & (O_WRONLY | O_RDWR | O_CREAT)) != 0; }

// Opening ------------------------------------------------------------------------------------

static int openFault(int folder, const char* path, int flags) {
  char buffer[PATH_MAX];
  const char* locked = getenv("CORVELSTOW_LOCKED_FOLDER");
  if (locked && *locked) {
    const char* full = pathOf(folder, path, buffer);
    if (full && strncmp(full, locked, strlen(locked)) == 0) {
      errno = ENOKEY;
      return 1;
    }
  }
  const char* full = pathOf(folder, path, buffer);
  return fault(kOpen, full, NULL) || ((flags & O_CREAT) && fault(kCreate, full, NULL));
}

static mode_t modeOf(int flags, va_list arguments) {
  return (flags & (O_CREAT | O_TMPFILE)) ? va_arg(arguments, mode_t) : 0;
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  if (openFault(AT_FDCWD, path, flags)) return -1;
  REAL(open);
  int fd = real(path, flags, mode);
  if (writes(flags)) track(fd);
  return fd;
}

int openat(int folder, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  if (openFault(folder, path, flags)) return -1;
  REAL(openat);
  int fd = real(folder, path, flags, mode);
  if (writes(flags)) track(fd);
  return fd;
}

// Writing and syncing ----------------------------------------------------------------------------

ssize_t write(int fd, const void* bytes, size_t count) {
  if (fdFault(kWrite, fd)) return -1;
  REAL(write);
  ssize_t n = real(fd, bytes, count);
  if (n > 0) wrote(fd);
  return n;
}

ssize_t pwrite(int fd, const void* bytes, size_t count, off_t offset) {
  if (fdFault(kWrite, fd)) return -1;
  REAL(pwrite);
  ssize_t n = real(fd, bytes, count, offset);
  if (n > 0) wrote(fd);
  return n;
}

int ftruncate(int fd, off_t length) {
  if (fdFault(kWrite, fd)) return -1;
  REAL(ftruncate);
  int result = real(fd, length);
  if (result == 0) wrote(fd);
  return result;
}

static int synced(int fd, int result) {
  if (result == 0 && isTracked(fd)) markDirty(tracked[fd].device, tracked[fd].inode, 0);
  return result;
}

int fsync(int fd) {
  if (fdFault(kSync, fd)) return -1;
  REAL(fsync);
  return synced(fd, real(fd));
}

int syncfs(int fd) {
  char buffer[PATH_MAX];
  if (fault(kSync, pathOf(fd, NULL, buffer), NULL)) return -1;
  REAL(syncfs);
  int result = real(fd);
  if (result == 0) cleanAll();
  return result;
}

int close(int fd) {
  int failing = fdFault(kClose, fd);
  int code = errno;
  if (fd >= 0 && fd < kMostFds) tracked[fd].used = 0;
  REAL(close);
  int result = real(fd);
  if (!failing) return result;
  errno = code;
  return -1;
}

// Renaming, removing, making folders -------------------------------------------------------------

static int renameFault(int fromFolder, const char* from, int toFolder, const char* to) {
  char fromBuffer[PATH_MAX], toBuffer[PATH_MAX];
  return fault(kRename, pathOf(fromFolder, from, fromBuffer), pathOf(toFolder, to, toBuffer));
}

int rename(const char* from, const char* to) {
  if (renameFault(AT_FDCWD, from, AT_FDCWD, to)) return -1;
  REAL(rename);
  return real(from, to);
}

int renameat(int fromFolder, const char* from, int toFolder, const char* to) {
  if (renameFault(fromFolder, from, toFolder, to)) return -1;
  REAL(renameat);
  return real(fromFolder, from, toFolder, to);
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned flags) {
  if (renameFault(fromFolder, from, toFolder, to)) return -1;
  REAL(renameat2);
  return real(fromFolder, from, toFolder, to, flags);
}

int unlink(const char* path) {
  if (fault(kUnlink, path, NULL)) return -1;
  REAL(unlink);
  return real(path);
}

int unlinkat(int folder, const char* path, int flags) {
  char buffer[PATH_MAX];
  if (fault(kUnlink, pathOf(folder, path, buffer), NULL)) return -1;
  REAL(unlinkat);
  return real(folder, path, flags);
}

int remove(const char* path) {
  if (fault(kUnlink, path, NULL)) return -1;
  REAL(remove);
  return real(path);
}

int mkdir(const char* path, mode_t mode) {
  if (fault(kMkdir, path, NULL)) return -1;
  REAL(mkdir);
  return real(path, mode);
}

int mkdirat(int folder, const char* path, mode_t mode) {
  char buffer[PATH_MAX];
  if (fault(kMkdir, pathOf(folder, path, buffer), NULL)) return -1;
  REAL(mkdirat);
  return real(folder, path, mode);
}

// Reading folders, locking, free space --------------------------------------------------------

struct dirent* readdir(DIR* dir) {
  char buffer[PATH_MAX];
  if (fault(kDir, pathOf(dirfd(dir), NULL, buffer), NULL)) return NULL;
  REAL(readdir);
  return real(dir);
}

int flock(int fd, int operation) {
  char buffer[PATH_MAX];
  if (fault(kLock, pathOf(fd, NULL, buffer), NULL)) return -1;
  REAL(flock);
  return real(fd, operation);
}

int statvfs(const char* path, struct statvfs* volume) {
  REAL(statvfs);
  int result = real(path, volume);
  const char* bytes = getenv("CORVELSTOW_FREE_BYTES");
  if (result == 0 && bytes && volume->f_frsize > 0) {
    volume->f_bavail = strtoull(bytes, NULL, 10) / volume->f_frsize;
  }
  return result;
}
