#include "spool_file.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace zorv::spool {
namespace {

constexpr const TableSchema* kWaiting[] = {&kServerLog, &kClientLog};
static_assert(kServerLog.record_size < kLargestFile && kClientLog.record_size < kLargestFile);

uint32_t crc32(std::string_view bytes) {
  constexpr uint32_t kPolynomial = 0xEDB88320;
  uint32_t sum = ~0U;
  for (const char byte : bytes) {
    sum ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit) {
      sum = (sum >> 1) ^ ((sum & 1) != 0 ? kPolynomial : 0);
    }
  }
  return ~sum;
}

bool are_texts_ended(const TableSchema& table, char* record) {
  for (const Field& field : table.fields) {
    if (field.is_text() && std::memchr(field.member(record), '\0', field.size) == nullptr) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::string file_text(const TableSchema& table, const void* record) {
  const std::string_view bytes(static_cast<const char*>(record), table.record_size);
  char line[80];
  const int length = std::snprintf(line, sizeof line, "ZORVSPOOL 1 %s %zu %08" PRIx32 "\n",
                                   table.methods.insert, bytes.size(), crc32(bytes));
  return std::string(line, static_cast<size_t>(length)).append(bytes);
}

std::optional<Record> read_file_text(std::string_view text) {
  for (const TableSchema* table : kWaiting) {
    if (text.size() <= table->record_size) {
      continue;
    }
    const std::string_view bytes = text.substr(text.size() - table->record_size);
    Record record{table, {bytes.begin(), bytes.end()}};
    if (file_text(*table, record.bytes.data()) == text &&
        are_texts_ended(*table, record.bytes.data())) {
      return record;
    }
  }
  return std::nullopt;
}

}  // namespace zorv::spool
