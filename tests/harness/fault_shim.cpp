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
#include <cstdarg>
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

mode_t mode_of(int flags, va_list arguments) {
  return (flags & (O_CREAT | O_TMPFILE)) != 0 ? static_cast<mode_t>(va_arg(arguments, unsigned))
                                              : 0;
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

ssize_t write(int file, const void* bytes, size_t length) {
  static const auto real = next<decltype(write)>("write");
  return fails(Call::write) ? -1 : real(file, bytes, length);
}

int open(const char* path, int flags, ...) {
  static const auto real = next<decltype(open)>("open");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = mode_of(flags, arguments);
  va_end(arguments);
  return fails(Call::open) ? -1 : real(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  static const auto real = next<decltype(open64)>("open64");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = mode_of(flags, arguments);
  va_end(arguments);
  return fails(Call::open) ? -1 : real(path, flags, mode);
}

int ftruncate(int file, off_t length) noexcept {
  static const auto real = next<int(int, off_t)>("ftruncate");
  return fails(Call::ftruncate) ? -1 : real(file, length);
}

int ftruncate64(int file, off64_t length) noexcept {
  static const auto real = next<int(int, off64_t)>("ftruncate64");
  return fails(Call::ftruncate) ? -1 : real(file, length);
}

int fallocate(int file, int mode, off_t offset, off_t length) {
  static const auto real = next<decltype(fallocate)>("fallocate");
  return fails(Call::fallocate) ? -1 : real(file, mode, offset, length);
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

ssize_t pread64(int file, void* bytes, size_t length, off64_t offset) {
  static const auto real = next<decltype(pread64)>("pread64");
  return fails(Call::pread) ? -1 : real(file, bytes, length, offset);
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
