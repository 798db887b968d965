#include "undo_journal.h"

#include <algorithm>
#include <cstddef>

namespace store {
namespace {

constexpr uint8_t kMagic[] = {0xd9, 0xd5, 0x05, 0xf9, 0x20, 0xa1, 0x63, 0xd7};
constexpr uint32_t kHeaderSize = 512;  // a sector: the records begin in the next one
constexpr uint32_t kSeed = 0x7a6f7276;

void append_big_endian(Page& bytes, uint64_t number) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    bytes.push_back(static_cast<uint8_t>(number >> shift));
  }
}

uint32_t checksum(const Page& page) {
  uint32_t sum = kSeed;
  for (size_t i = page.size(); i > 200;) {
    i -= 200;
    sum += page[i];
  }
  return sum;
}

class JournalFile {
 public:
  JournalFile(sqlite3_vfs* vfs, const char* database, int flags)
      : memory_((static_cast<size_t>(vfs->szOsFile) - 1) / sizeof(std::max_align_t) + 1) {
    result_ = vfs->xOpen(vfs, sqlite3_filename_journal(database), file(),
                         SQLITE_OPEN_MAIN_JOURNAL | flags, nullptr);
  }
  ~JournalFile() {
    if (file()->pMethods != nullptr) {
      file()->pMethods->xClose(file());
    }
  }
  JournalFile(const JournalFile&) = delete;
  JournalFile& operator=(const JournalFile&) = delete;

  int result() const { return result_; }
  uint8_t first_byte() {
    uint8_t byte = 0;
    return file()->pMethods->xRead(file(), &byte, 1, 0) == SQLITE_OK ? byte : uint8_t{0};
  }
  void empty() { run(&sqlite3_io_methods::xTruncate, sqlite3_int64{0}); }
  void write(const Page& bytes, sqlite3_int64 offset) {
    run(&sqlite3_io_methods::xWrite, bytes.data(), static_cast<int>(bytes.size()), offset);
  }
  void sync() { run(&sqlite3_io_methods::xSync, SQLITE_SYNC_NORMAL); }

 private:
  sqlite3_file* file() { return reinterpret_cast<sqlite3_file*>(memory_.data()); }

  // Nothing after the first failure.
  template <class Method, class... Arguments>
  void run(Method method, Arguments... arguments) {
    if (result_ == SQLITE_OK) {
      result_ = (file()->pMethods->*method)(file(), arguments...);
    }
  }

  std::vector<std::max_align_t> memory_;
  int result_;
};

Page header(size_t page_count, sqlite3_int64 size, size_t page_size) {
  Page bytes(kMagic, std::end(kMagic));
  for (const uint64_t number :
       {uint64_t{page_count}, uint64_t{kSeed}, static_cast<uint64_t>(size) / page_size,
        uint64_t{kHeaderSize}, uint64_t{page_size}}) {
    append_big_endian(bytes, number);
  }
  return bytes;
}

int write_and_sync(JournalFile& journal, sqlite3_int64 size, const PagesByOffset& before,
                   size_t known) {
  const size_t page_size = before.begin()->second.size();
  sqlite3_int64 at = kHeaderSize + static_cast<sqlite3_int64>(known * (page_size + 8));
  if (known == 0) {
    journal.empty();
  }
  for (const auto& [offset, page] : before) {
    Page record;
    record.reserve(page_size + 8);
    append_big_endian(record, static_cast<uint64_t>(offset) / page_size + 1);
    record.insert(record.end(), page.begin(), page.end());
    append_big_endian(record, checksum(page));
    journal.write(record, at);
    at += static_cast<sqlite3_int64>(record.size());
  }
  // Without its header it is none, and the header may only say what is on the disk.
  journal.sync();
  journal.write(header(known + before.size(), size, page_size), 0);
  journal.sync();
  return journal.result();
}

}  // namespace

bool write_undo_journal(sqlite3_vfs* vfs, const char* database, sqlite3_int64 size,
                        const PagesByOffset& before, size_t known) {
  int result = SQLITE_OK;
  {
    JournalFile journal(vfs, database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    result = journal.result() == SQLITE_OK ? write_and_sync(journal, size, before, known)
                                           : journal.result();
  }
  if (result != SQLITE_OK && known == 0) {
    drop_undo_journal(vfs, database);
  }
  return result == SQLITE_OK;
}

int drop_undo_journal(sqlite3_vfs* vfs, const char* database) {
  const int result = vfs->xDelete(vfs, sqlite3_filename_journal(database), 1);
  return result == SQLITE_IOERR_DELETE_NOENT ? SQLITE_OK : result;
}

bool has_journal(sqlite3_vfs* vfs, const char* database) {
  int is_there = 0;
  if (vfs->xAccess(vfs, sqlite3_filename_journal(database), SQLITE_ACCESS_EXISTS, &is_there) !=
          SQLITE_OK ||
      is_there == 0) {
    return false;
  }
  JournalFile journal(vfs, database, SQLITE_OPEN_READONLY);
  return journal.result() == SQLITE_OK && journal.first_byte() != 0;
}

}  // namespace store
