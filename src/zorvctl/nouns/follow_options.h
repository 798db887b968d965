// -f and --cursor of "list".
#pragma once

#include <CLI/App.hpp>

#include <memory>
#include <optional>
#include <string>

#include "list_options.h"
#include "record_writer.h"

namespace zorvctl {

inline constexpr unsigned long long kRowsBeforeFollowing = 10;

struct FollowOptions {
  bool follow = false;
  std::optional<std::string> cursor;

  bool is_asked() const { return follow || cursor; }
};

// Behind the other options of a verb, some of which they exclude. Only -f where there are no ids to
// resume by.
std::shared_ptr<FollowOptions> add_follow_options(CLI::App& verb, bool has_cursor);

// The last rows and then, with -f, those that come; from the cursor on where there is one. Oldest
// first.
int follow_records(const zorv::TableSchema& table, const ListOptions& options,
                   const FollowOptions& following);

// The users whose failures were counted last, and then each whose count or state changes.
int follow_blocks(const zorv::TableSchema& table, const ListOptions& options,
                  const FollowOptions& following);

// Whether filters and window hold for a row, which came without having been asked for by them.
bool is_wanted(const zorv::TableSchema& table, const RecordQuery& query, const void* row);

// How many of the last rows are to be shown at first; none for all of them.
std::optional<unsigned long long> rows_before(const ListOptions& options,
                                              const FollowOptions& following);

// What a reader of new rows is told.
void complain_lost(const zorv::TableSchema& table, unsigned long long rows);
void complain_new_database(const zorv::TableSchema& table);

// Writes records as they come, and sees each of them out.
class RecordStream {
 public:
  RecordStream(const Shown& shown, const std::string& format);
  void add(const void* record);
  // False where it could not be written.
  bool flush();

 private:
  std::string out_;
  std::unique_ptr<RecordWriter> writer_;
  bool has_more_ = false;
};

}  // namespace zorvctl
