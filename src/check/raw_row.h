// The bytes of a database file, as SQLite's file format (which is kept for good) lays them out:
// pages, and in them rows. Nothing here believes what a page says of itself: a length or a place
// beyond what is there gives no row.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace check {

using Bytes = std::span<const uint8_t>;

struct RawColumn {
  uint64_t type;  // the format's serial type: 0 is NULL, odd ones from 13 are texts
  size_t offset;  // in the row's payload
  size_t size;

  bool is_text() const { return type >= 13 && type % 2 == 1; }
};

struct RawRow {
  int64_t id = 0;
  std::vector<uint8_t> payload{};
  std::vector<RawColumn> columns{};
  size_t local = 0;                  // bytes that it takes in its own page
  std::vector<uint32_t> overflow{};  // pages that hold what the row's own page does not
  bool is_whole = false;  // otherwise the columns that could not be read have become NULL

  Bytes bytes(const RawColumn& column) const {
    return Bytes(payload).subspan(column.offset, column.size);
  }
  std::string_view text(size_t column) const;  // "" for what is no text
  int64_t integer(size_t column) const;        // 0 for what is no integer
};

uint32_t big_endian(Bytes bytes, size_t offset, size_t size);

// The pages of an open file, numbered from 1. The file is read page by page, so one of any size
// costs no memory.
class Pages {
 public:
  // Where the header makes no sense, the pages are taken for those that the daemon makes.
  explicit Pages(int descriptor);

  uint32_t count() const { return count_; }
  int encoding() const { return encoding_; }  // SQLITE_UTF8, ...

  // The part of a page that holds rows. What the disk does not give, or the file no longer has,
  // reads as zero.
  std::vector<uint8_t> read(uint32_t number) const;

  // The row at that place of a page. False, with *ret_row in any state, where there is none.
  bool read_row(Bytes page, size_t offset, RawRow& ret_row) const;

 private:
  void read_overflow(uint32_t page, uint64_t length, RawRow& row) const;

  int descriptor_;
  size_t size_ = 2048;
  size_t usable_ = 2048;
  uint32_t count_ = 0;
  int encoding_ = 1;
};

}  // namespace check
