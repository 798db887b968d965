#include "zorvd_tables.h"

#include <algorithm>

#include "memory_room.h"

namespace store {
namespace {

// Five connections may keep 20 MB of pages each, which is more than a small control group has.
void fit_page_caches() {
  if (const std::uint64_t limit = os::memory_room().limit; limit != os::kUnlimitedMemory) {
    constexpr std::uint64_t kMost = std::uint64_t{1} << 30;
    sqlite3_soft_heap_limit64(static_cast<sqlite3_int64>(std::min(limit, kMost) / 4));
  }
}

}  // namespace

void open_tables() {
  fit_page_caches();
  const Operation start(kStartPatience);
  for (const zorv::TableSchema* schema : zorv::kTables) {
    if (schema->opened) {
      create(table_of(*schema));
    }
  }
}

void close_tables() {
  for (const zorv::TableSchema* schema : zorv::kTables) {
    if (schema->finished) {
      finish(table_of(*schema));
    }
  }
}

}  // namespace store
