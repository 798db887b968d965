#include "row_keeping_vfs.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <set>
#include <utility>

#include "undo_journal.h"

namespace store {
namespace {

constexpr const char* kName = "zorv";
constexpr size_t kMostHeld = 4096;  // pages

// What was written since the file was locked for it, and not yet handed on.
struct Transaction {
  sqlite3_int64 size_before;
  sqlite3_int64 size;
  PagesByOffset pages{};
  std::set<sqlite3_int64> journaled{};  // offsets of pages that the undo journal has
};

// SQLite reserves the memory: the file that does the work lies behind this one.
struct alignas(sqlite3_int64) DatabaseFile {
  sqlite3_file base;
  const char* name;
  Transaction* transaction;  // while others are locked out
};

sqlite3_vfs* real_vfs = nullptr;

DatabaseFile* ours(sqlite3_file* file) {
  return reinterpret_cast<DatabaseFile*>(file);
}

sqlite3_file* real(sqlite3_file* file) {
  return reinterpret_cast<sqlite3_file*>(ours(file) + 1);
}

template <auto Method, class... Arguments>
int call(sqlite3_file* file, Arguments... arguments) {
  return (real(file)->pMethods->*Method)(real(file), arguments...);
}

// As SQLite's own file does it.
template <auto Method>
struct Same;
template <class Result, class... Arguments,
          Result (*sqlite3_io_methods::*Method)(sqlite3_file*, Arguments...)>
struct Same<Method> {
  static Result run(sqlite3_file* file, Arguments... arguments) {
    return (real(file)->pMethods->*Method)(real(file), arguments...);
  }
};

// Whether the rows of a page lie in the new one where they lay. A number that is counted up where
// it stands, as the highest id is, moves none.
bool rows_stay(const Page& before, const Page& now, size_t head) {
  constexpr uint8_t kRows = 13;
  constexpr uint8_t kNoRows[] = {1, 2, 3, 4, 5, 10};  // indexes, inner pages, SQLite's page maps
  constexpr std::ptrdiff_t kLongestNumber = 9;
  if (before[head] != kRows || now[head] != kRows) {
    return before == now || std::ranges::find(kNoRows, before[head]) != std::end(kNoRows);
  }
  const size_t rows = size_t{before[head + 5]} << 8 | before[head + 6];
  if (rows == 0 || rows > before.size()) {
    return false;
  }
  const auto from = before.begin() + static_cast<std::ptrdiff_t>(rows);
  const auto first = std::mismatch(from, before.end(), now.end() - (before.end() - from)).first;
  const auto last =
      std::mismatch(before.rbegin(), std::make_reverse_iterator(first), now.rbegin()).first.base();
  return last - first <= kLongestNumber;
}

// The pages that are about to be written over, as they are.
int read_before(sqlite3_file* file, const Transaction& transaction, PagesByOffset& ret_before) {
  for (const auto& [offset, page] : transaction.pages) {
    if (offset >= transaction.size_before) {
      break;
    }
    if (transaction.journaled.contains(offset)) {
      continue;
    }
    Page& before = ret_before[offset];
    before.resize(page.size());
    const int result = call<&sqlite3_io_methods::xRead>(file, before.data(),
                                                        static_cast<int>(before.size()), offset);
    if (result != SQLITE_OK) {
      return result;
    }
  }
  return SQLITE_OK;
}

bool moves_rows(const Transaction& transaction, const PagesByOffset& before) {
  return transaction.size < transaction.size_before ||
         std::ranges::any_of(before, [&transaction](const auto& one) {
           return !rows_stay(one.second, transaction.pages.at(one.first), one.first == 0 ? 100 : 0);
         });
}

bool may_keep_journal(sqlite3_file* file) {
  int has_moved = 0;
  call<&sqlite3_io_methods::xFileControl>(file, SQLITE_FCNTL_HAS_MOVED, &has_moved);
  return has_moved == 0 && !has_journal(real_vfs, ours(file)->name);
}

int write_pages(sqlite3_file* file, const PagesByOffset& pages) {
  int result = SQLITE_OK;
  for (auto page = pages.begin(); page != pages.end() && result == SQLITE_OK; ++page) {
    result = call<&sqlite3_io_methods::xWrite>(file, page->second.data(),
                                               static_cast<int>(page->second.size()), page->first);
  }
  return result;
}

// Hands on what is held, all of it or a part: the sync is still to come.
enum class Part : bool { last, more_follow };
int hand_on(sqlite3_file* file, Part part) {
  Transaction& transaction = *ours(file)->transaction;
  PagesByOffset before;
  // A page that cannot be read has nothing to keep.
  const bool is_known = read_before(file, transaction, before) == SQLITE_OK;
  const size_t known = transaction.journaled.size();
  const bool is_due =
      known != 0 ||
      ((part == Part::more_follow || moves_rows(transaction, before)) && may_keep_journal(file));
  if (is_known && !before.empty() && is_due &&
      write_undo_journal(real_vfs, ours(file)->name, transaction.size_before, before, known)) {
    for (const auto& [offset, page] : before) {
      transaction.journaled.insert(offset);
    }
  }
  const int result = write_pages(file, transaction.pages);
  transaction.pages.clear();
  return result;
}

int commit(sqlite3_file* file) {
  Transaction& transaction = *ours(file)->transaction;
  int result = hand_on(file, Part::last);
  if (!transaction.journaled.empty() && result == SQLITE_OK) {
    result = call<&sqlite3_io_methods::xSync>(file, SQLITE_SYNC_NORMAL);
    if (result == SQLITE_OK) {
      result = drop_undo_journal(real_vfs, ours(file)->name);
    }
  }
  // What is cut off here is in no journal, so it may only go now.
  if (result == SQLITE_OK && transaction.size < transaction.size_before) {
    result = call<&sqlite3_io_methods::xTruncate>(file, transaction.size);
  }
  transaction.journaled.clear();
  transaction.size_before = transaction.size;
  return result;
}

int close(sqlite3_file* file) {
  delete ours(file)->transaction;
  return call<&sqlite3_io_methods::xClose>(file);
}

int lock(sqlite3_file* file, int level) {
  int result = call<&sqlite3_io_methods::xLock>(file, level);
  if (result == SQLITE_OK && level == SQLITE_LOCK_EXCLUSIVE && ours(file)->transaction == nullptr) {
    sqlite3_int64 size = 0;
    result = call<&sqlite3_io_methods::xFileSize>(file, &size);
    if (result == SQLITE_OK) {
      ours(file)->transaction = new (std::nothrow) Transaction{size, size};
    }
  }
  return result;
}

// What was not synced until here belongs to a transaction that failed. Where a part of it is in the
// file, whoever locks that next takes it back with the journal.
int unlock(sqlite3_file* file, int level) {
  delete std::exchange(ours(file)->transaction, nullptr);
  return call<&sqlite3_io_methods::xUnlock>(file, level);
}

int write(sqlite3_file* file, const void* bytes, int size, sqlite3_int64 offset) {
  Transaction* const transaction = ours(file)->transaction;
  if (transaction == nullptr) {
    return call<&sqlite3_io_methods::xWrite>(file, bytes, size, offset);
  }
  try {
    const auto* const first = static_cast<const uint8_t*>(bytes);
    transaction->pages[offset].assign(first, first + size);
    transaction->size = std::max(transaction->size, offset + size);
    return transaction->pages.size() < kMostHeld ? SQLITE_OK : hand_on(file, Part::more_follow);
  } catch (const std::bad_alloc&) {
    return SQLITE_IOERR_NOMEM;
  }
}

int read(sqlite3_file* file, void* bytes, int size, sqlite3_int64 offset) {
  if (const Transaction* const transaction = ours(file)->transaction) {
    auto page = transaction->pages.upper_bound(offset);
    if (page != transaction->pages.begin()) {
      --page;
      const auto skipped = static_cast<size_t>(offset - page->first);
      if (skipped + static_cast<size_t>(size) <= page->second.size()) {
        std::memcpy(bytes, page->second.data() + skipped, static_cast<size_t>(size));
        return SQLITE_OK;
      }
    }
  }
  return call<&sqlite3_io_methods::xRead>(file, bytes, size, offset);
}

int truncate(sqlite3_file* file, sqlite3_int64 size) {
  Transaction* const transaction = ours(file)->transaction;
  // SQLite gives the end of a file back once the transaction holds.
  if (transaction == nullptr || (transaction->pages.empty() && transaction->journaled.empty())) {
    const int result = call<&sqlite3_io_methods::xTruncate>(file, size);
    if (transaction != nullptr && result == SQLITE_OK) {
      transaction->size = transaction->size_before = size;
    }
    return result;
  }
  transaction->pages.erase(transaction->pages.lower_bound(size), transaction->pages.end());
  transaction->size = size;
  return SQLITE_OK;
}

int file_size(sqlite3_file* file, sqlite3_int64* ret_size) {
  if (const Transaction* const transaction = ours(file)->transaction) {
    *ret_size = transaction->size;
    return SQLITE_OK;
  }
  return call<&sqlite3_io_methods::xFileSize>(file, ret_size);
}

// Asked for before each sync, and where PRAGMA synchronous leaves the sync out.
int file_control(sqlite3_file* file, int what, void* argument) {
  if (what == SQLITE_FCNTL_SYNC && ours(file)->transaction != nullptr) {
    try {
      if (const int result = commit(file); result != SQLITE_OK) {
        return result;
      }
    } catch (const std::bad_alloc&) {
      return SQLITE_IOERR_NOMEM;
    }
  }
  return call<&sqlite3_io_methods::xFileControl>(file, what, argument);
}

// The second version: the third maps the file, past what is held.
constexpr sqlite3_io_methods kMethods = {
    .iVersion = 2,
    .xClose = close,
    .xRead = read,
    .xWrite = write,
    .xTruncate = truncate,
    .xSync = Same<&sqlite3_io_methods::xSync>::run,
    .xFileSize = file_size,
    .xLock = lock,
    .xUnlock = unlock,
    .xCheckReservedLock = Same<&sqlite3_io_methods::xCheckReservedLock>::run,
    .xFileControl = file_control,
    .xSectorSize = Same<&sqlite3_io_methods::xSectorSize>::run,
    .xDeviceCharacteristics = Same<&sqlite3_io_methods::xDeviceCharacteristics>::run,
    .xShmMap = Same<&sqlite3_io_methods::xShmMap>::run,
    .xShmLock = Same<&sqlite3_io_methods::xShmLock>::run,
    .xShmBarrier = Same<&sqlite3_io_methods::xShmBarrier>::run,
    .xShmUnmap = Same<&sqlite3_io_methods::xShmUnmap>::run,
    .xFetch = nullptr,
    .xUnfetch = nullptr,
};

int open(sqlite3_vfs* /*vfs*/, const char* name, sqlite3_file* file, int flags, int* ret_flags) {
  if ((flags & SQLITE_OPEN_MAIN_DB) == 0) {
    return real_vfs->xOpen(real_vfs, name, file, flags, ret_flags);
  }
  new (file) DatabaseFile{{nullptr}, name, nullptr};
  const int result = real_vfs->xOpen(real_vfs, name, real(file), flags, ret_flags);
  if (real(file)->pMethods != nullptr) {
    file->pMethods = &kMethods;
  }
  return result;
}

// A journal that came back after a cut would undo what was written without one since.
int remove(sqlite3_vfs* /*vfs*/, const char* name, int /*is_synced*/) {
  return real_vfs->xDelete(real_vfs, name, 1);
}

}  // namespace

const char* row_keeping_vfs() {
  static sqlite3_vfs vfs{};
  if (real_vfs == nullptr && (real_vfs = sqlite3_vfs_find(nullptr)) != nullptr) {
    // SQLite's own in all else.
    vfs = *real_vfs;
    vfs.szOsFile += static_cast<int>(sizeof(DatabaseFile));
    vfs.zName = kName;
    vfs.xOpen = open;
    vfs.xDelete = remove;
    sqlite3_vfs_register(&vfs, 0);
  }
  return real_vfs != nullptr ? kName : nullptr;
}

}  // namespace store
