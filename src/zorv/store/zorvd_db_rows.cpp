#include "zorvd_db_rows.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "long_conversion.h"

namespace store {
namespace {

record_int64 read_number(zorv::FieldType type, const char* text) {
  if (text == nullptr) {
    return -1;
  }
  return type == zorv::FieldType::int32 ? long_conversion(text) : std::strtoll(text, nullptr, 10);
}

void read_value(const zorv::Field& field, const char* text, void* record) {
  switch (field.type) {
    case zorv::FieldType::text: {
      // The record is zeroed: only the text itself is copied, a page holds a hundred thousand of
      // them.
      const char* const source = text != nullptr ? text : "NULL";
      std::memcpy(field.member(record), source, strnlen(source, field.size - 1));
      break;
    }
    case zorv::FieldType::int32:
    case zorv::FieldType::wrapped_int32:
    case zorv::FieldType::int64:
      zorv::set(field, record, read_number(field.type, text));
      break;
    case zorv::FieldType::uint64:
      zorv::set(field, record, static_cast<record_uint64>(read_number(field.type, text)));
      break;
  }
}

struct RowReader {
  Table& table;
  RowSpace& space;
  record_uint64 count = 0;
  bool incomplete = false;
};

// Always 0: a row that cannot be kept must not abort the statement, which would close the
// connection.
int select_callback(void* user, int text_count, char** texts, char** /*names*/) {
  auto& reader = *static_cast<RowReader*>(user);
  if (reader.incomplete) {
    return 0;
  }
  void* const record = reader.space.next(reader.table.schema.record_size);
  if (record == nullptr) {
    ZORV_LOG_FOR(reader.table.log, debug, "realloc fail");
    reader.incomplete = true;
    return 0;
  }
  read_row(reader.table.schema, text_count, texts, record);
  ++reader.count;
  return 0;
}

}  // namespace

void read_row(const zorv::TableSchema& schema, int text_count, char** texts, void* ret_record) {
  int index = 0;
  for (const zorv::Field& field : schema.fields) {
    const char* const text = index < text_count ? texts[index] : nullptr;
    if (index == 0) {
      // An id is read at 32 bits, as the target's long has them.
      zorv::set(field, ret_record, read_number(zorv::FieldType::int32, text));
    } else {
      read_value(field, text, ret_record);
    }
    ++index;
  }
}

int select_rows(Table& table, const db_query_cond& cond, RowSpace& space, RowCounts& ret_counts) {
  RowReader reader{table, space};
  record_uint64 total = 0;
  if (select_page(table, cond, select_callback, &reader, total) != 0 || reader.incomplete) {
    return -1;
  }
  ret_counts = {reader.count, total};
  return 0;
}

RowArray::~RowArray() {
  std::free(bytes_);
}

void* RowArray::next(size_t size) {
  if (capacity_ - used_ < size && !grow(size)) {
    return nullptr;
  }
  char* const space = bytes_ + used_;
  used_ += size;
  return std::memset(space, 0, size);
}

void* RowArray::release() {
  return std::exchange(bytes_, nullptr);
}

bool RowArray::grow(size_t size) {
  constexpr size_t kFirstRecords = 16;
  if (size > SIZE_MAX / kFirstRecords || capacity_ > SIZE_MAX / 2) {
    return false;
  }
  const size_t wanted = capacity_ == 0 ? size * kFirstRecords : capacity_ * 2;
  void* const grown = std::realloc(bytes_, wanted);
  if (grown == nullptr) {
    return false;
  }
  bytes_ = static_cast<char*>(grown);
  capacity_ = wanted;
  return true;
}

}  // namespace store
