// Linked into a program, leaves it 512 MB of address space from its start on.
#include <sys/mman.h>
#include <sys/resource.h>

#include <cstddef>
#include <cstdlib>

namespace {

constexpr size_t kLeft = size_t{512} << 20;

void* reserve(size_t size) {
  return mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
}

__attribute__((constructor)) void leave_512_megabytes() {
  const rlimit limit{kLeft, kLeft};
  setrlimit(RLIMIT_AS, &limit);
  void* hole = reserve(kLeft);
  if (hole == MAP_FAILED) {
    return;
  }
  // An emulator lets its programs set that limit and does not keep it: take all the rest away.
  if (sizeof(void*) > 4) {
    abort();
  }
  for (size_t size = kLeft; size >= (size_t{64} << 10); size /= 2) {
    while (reserve(size) != MAP_FAILED) {
    }
  }
  munmap(hole, kLeft);
}

}  // namespace
