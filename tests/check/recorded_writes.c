/* Preloaded into the daemon: appends what it does to its database and the journal beside it to the file that
 * ZORV_RECORDED names, once that is there: "w FILE OFFSET SIZE" with the bytes, "t FILE SIZE 0", "s FILE 0 0" for a
 * sync and "u FILE 0 0" for a removal; FILE is 0, 1 for the journal, 2 for their folder. Where ZORV_KILL_AT gives a
 * number, the daemon is killed in the midst of that call. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int is_last_call(void) {
  static int calls;
  const char* at = getenv("ZORV_KILL_AT");
  return at != NULL && ++calls == atoi(at);
}

static int record(const char* path, char what, long long offset, long long size, const void* bytes) {
  static const char* const files[] = {"/zorv.db", "/zorv.db-journal", "/zorv"};
  char line[64];
  for (int file = 0; file < 3; ++file) {
    const char* name = strrchr(path, '/');
    const int out = name != NULL && strcmp(name, files[file]) == 0
                        ? open(getenv("ZORV_RECORDED"), O_WRONLY | O_APPEND | O_CLOEXEC)
                        : -1;
    if (out >= 0) {
      const int header = snprintf(line, sizeof line, "%c %d %lld %lld\n", what, file, offset, size);
      if (write(out, line, (size_t)header) != header || write(out, bytes, (size_t)size) != size) {
        abort();
      }
      close(out);
      return is_last_call();
    }
  }
  return 0;
}

static int record_of(int fd, char what, long long offset, long long size, const void* bytes) {
  char link[64], path[4096];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t length = readlink(link, path, sizeof path - 1);
  path[length > 0 ? length : 0] = '\0';
  return record(path, what, offset, size, bytes);
}

#define REAL(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

ssize_t pwrite64(int fd, const void* bytes, size_t size, off64_t offset) {
  if (record_of(fd, 'w', offset, (long long)size, bytes)) {
    REAL(pwrite64)(fd, bytes, size / 1024 * 512, offset);
    raise(SIGKILL);
  }
  return REAL(pwrite64)(fd, bytes, size, offset);
}
int ftruncate64(int fd, off64_t size) {
  if (record_of(fd, 't', size, 0, "")) {
    raise(SIGKILL);
  }
  return REAL(ftruncate64)(fd, size);
}
int fdatasync(int fd) {
  if (record_of(fd, 's', 0, 0, "")) {
    raise(SIGKILL);
  }
  return REAL(fdatasync)(fd);
}
int unlink(const char* path) {
  if (record(path, 'u', 0, 0, "")) {
    raise(SIGKILL);
  }
  return REAL(unlink)(path);
}
