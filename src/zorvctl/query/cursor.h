// Where a reading of a table's rows ended, and the file that keeps it for the next run.
//
// Ids only grow, also when the table is emptied; they begin again in a database that was made anew,
// and with each start of the daemon in a temporary table. The last rows' digests tell the two
// apart. The file is text:
//
//   zorvctl cursor 1 server-log 1234     up to which id rows were read
//   1234 9ae16a3b2f90404f                the last of them that were there: id and digest
//   1233 0ba2a4a0f29d3a1c
//   end
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zorv_schema.h"

namespace zorvctl {

struct Mark {
  record_int64 id;
  uint64_t digest;

  bool operator==(const Mark&) const = default;
};

struct Place {
  record_int64 last_id = 0;  // rows up to this one were read
  std::vector<Mark> marks;   // of the last of them, the newest first, kMostMarks at most

  bool operator==(const Place&) const = default;
};
// While one of them is there, deleting the others does not look like another database.
inline constexpr size_t kMostMarks = 10;

record_int64 id_of(const zorv::TableSchema& table, const void* record);
// Of what the row says, whatever lies behind its texts.
uint64_t digest_of(const zorv::TableSchema& table, const void* record);

// kDone, also where there is no file yet, *ret_found then being false; or the exit status after a
// complaint.
int read_cursor(const std::string& path, const zorv::TableSchema& table, Place* ret_place,
                bool* ret_found);
// Whole or not at all, whatever happens meanwhile. kDone or kFailed after a complaint.
int write_cursor(const std::string& path, const zorv::TableSchema& table, const Place& place);

}  // namespace zorvctl
