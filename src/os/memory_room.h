// How much memory the control groups of this process still let it have.
#pragma once

#include <cstdint>

namespace os {

inline constexpr std::uint64_t kUnlimitedMemory = UINT64_MAX;

// Of a group, or of one that it is in. What the page cache would give back counts as free.
struct MemoryRoom {
  std::uint64_t limit = kUnlimitedMemory;
  std::uint64_t left = kUnlimitedMemory;
};

// The smallest room of all groups, in bytes; unlimited where no group says anything. Costs some
// reads of the kernel's files. Any thread may call; throws bad_alloc only.
MemoryRoom memory_room();

}  // namespace os
