// Loaded in front of the C library: the FAULT_AT-th call on a socket ends the process (FAULT_MODE=kill) or the
// connection (cut).
#define _GNU_SOURCE
#include <dlfcn.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

static void count_call(int descriptor) {
  static int calls;
  if (++calls == atoi(getenv("FAULT_AT"))) {
    *getenv("FAULT_MODE") == 'k' ? kill(getpid(), SIGKILL) : shutdown(descriptor, SHUT_RDWR);
  }
}

#define COUNTED(result, name, parameters, ...)                                \
  result name parameters {                                                    \
    result(*real) parameters = (result(*) parameters)dlsym(RTLD_NEXT, #name); \
    count_call(descriptor);                                                   \
    return real(__VA_ARGS__);                                                 \
  }

// clang-format off
COUNTED(int, connect, (int descriptor, const struct sockaddr* address, socklen_t size), descriptor, address, size)
COUNTED(ssize_t, send, (int descriptor, const void* bytes, size_t size, int flags), descriptor, bytes, size, flags)
COUNTED(ssize_t, recv, (int descriptor, void* bytes, size_t size, int flags), descriptor, bytes, size, flags)
COUNTED(ssize_t, sendmsg, (int descriptor, const struct msghdr* message, int flags), descriptor, message, flags)
COUNTED(ssize_t, recvmsg, (int descriptor, struct msghdr* message, int flags), descriptor, message, flags)
