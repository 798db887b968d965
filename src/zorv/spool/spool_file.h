// A record as it waits in a file: a line that says what it is, and the bytes that the bus carries.
//
//   ZORVSPOOL 1 METHOD LENGTH CHECKSUM\n
//
// METHOD is the daemon's, LENGTH the record's bytes in decimal, CHECKSUM their CRC-32 in 8 digits.
// Only connections wait: METHOD is an insert of the server log or the client log.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zorv_schema.h"

namespace zorv::spool {

inline constexpr size_t kLargestFile = 8192;

struct Record {
  const TableSchema* table = nullptr;
  std::vector<char> bytes;
};

std::string file_text(const TableSchema& table, const void* record);

// Nothing where the text is not, byte for byte, what file_text() writes of a record whose texts all
// end within their fields.
std::optional<Record> read_file_text(std::string_view text);

}  // namespace zorv::spool
