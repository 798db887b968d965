// Stands in front of the C library and fails the call that the plan names. Linked into a test, or
// loaded into the daemon with LD_PRELOAD; whatever the daemon starts is rid of it.
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "harness/fault_plan.h"

namespace {

using harness::Call;

harness::FaultPlan* plan = nullptr;

bool fails(Call call) {
  if (plan == nullptr || plan->call != static_cast<int>(call) || plan->process != getpid() ||
      --plan->calls_left != 0) {
    return false;
  }
  ++plan->failures;
  errno = plan->error;
  return true;
}

template <class Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void start_interval_timer() {
  struct sigaction action {};
  action.sa_handler = [](int) {};  // without SA_RESTART: calls that wait are interrupted
  sigaction(SIGALRM, &action, nullptr);
  const itimerval interval{{0, 1000}, {0, 1000}};
  setitimer(ITIMER_REAL, &interval, nullptr);
}

__attribute__((constructor)) void attach() {
  if (getenv(harness::kIntervalTimerVariable) != nullptr) {
    start_interval_timer();
  }
  const char* path = getenv(harness::kFaultPlanVariable);
  if (path == nullptr) {
    return;
  }
  const auto file = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC));
  void* base = next<decltype(mmap)>("mmap")(nullptr, sizeof(harness::FaultPlan),
                                            PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  unsetenv("LD_PRELOAD");
  plan = base != MAP_FAILED ? static_cast<harness::FaultPlan*>(base) : nullptr;
}

}  // namespace

void harness::use_fault_plan(FaultPlan* given) {
  plan = given;
}

extern "C" {

int accept4(int socket, sockaddr* address, socklen_t* length, int flags) {
  static const auto real = next<decltype(accept4)>("accept4");
  return fails(Call::accept) ? -1 : real(socket, address, length, flags);
}

ssize_t sendmsg(int socket, const msghdr* message, int flags) {
  static const auto real = next<decltype(sendmsg)>("sendmsg");
  return fails(Call::sendmsg) ? -1 : real(socket, message, flags);
}

int memfd_create(const char* name, unsigned flags) noexcept {
  static const auto real = next<int(const char*, unsigned)>("memfd_create");
  return fails(Call::memfd_create) ? -1 : real(name, flags);
}

void* mmap(void* address, size_t length, int protection, int flags, int file,
           off_t offset) noexcept {
  static const auto real = next<void*(void*, size_t, int, int, int, off_t)>("mmap");
  return fails(Call::mmap) ? MAP_FAILED : real(address, length, protection, flags, file, offset);
}

ssize_t pwrite(int file, const void* bytes, size_t length, off_t offset) {
  static const auto real = next<decltype(pwrite)>("pwrite");
  return fails(Call::pwrite) ? -1 : real(file, bytes, length, offset);
}

ssize_t pwrite64(int file, const void* bytes, size_t length, off64_t offset) {
  static const auto real = next<decltype(pwrite64)>("pwrite64");
  return fails(Call::pwrite) ? -1 : real(file, bytes, length, offset);
}

#ifdef ZORV_FAULT_ALLOCATIONS
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);

void* malloc(size_t size) noexcept {
  return fails(Call::allocation) ? nullptr : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) noexcept {
  return fails(Call::allocation) ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* block, size_t size) noexcept {
  return fails(Call::allocation) ? nullptr : __libc_realloc(block, size);
}
#endif

}  // extern "C"
