// Whether SQLite finds a database file sound, and the repair that it has of its own.
//
// What the file's schema says is not run: no trigger, no view, no function that is not harmless.
#pragma once

#include <string>

namespace check {

// Set by SIGINT and SIGTERM: what is going on ends.
bool is_cancelled();
void end_on_signals();

enum class Verdict : char {
  sound,
  indexes,  // every page holds together, and an index disagrees with its table's rows
  damaged,
  unknown,  // it could not be looked at
};

struct Finding {
  Verdict verdict;
  std::string text{};  // SQLite's, one line
};

// Looks in a process of its own, which maps the file: a page that the disk does not give ends that
// process and tells of damage. A file that only reads are allowed for stays as it is; otherwise
// SQLite takes back what a left journal of another program's says.
Finding look(const std::string& file, bool may_write);

// Makes all indexes anew. 0 or SQLite's result, and the file as it was.
int rebuild_indexes(const std::string& file);

}  // namespace check
