// Records as text, in one of the formats of kFormats. A writer appends to the string it was made
// with; the caller prints and empties that whenever it likes. JSON and CSV lines are complete after
// each add(); a table needs end_page(), which lines up the records added since the last one.
//
// A format more: a file here that defines it, its row in formats.cpp, and a word in the man page.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "time_argument.h"
#include "zorv_schema.h"

namespace zorvctl {

struct Style {
  Zone zone = Zone::local;
  bool heading = true;  // of tables and CSV
  // To a terminal: CSV shows control characters escaped instead of raw, and a row of a table takes
  // at most `columns` columns, 0 for any width.
  bool terminal = false;
  unsigned columns = 0;
  bool utf8 = true;       // what the terminal shows
  bool color = false;     // of tables
  bool readable = false;  // CSV for people: words, and times and amounts as in tables
  // Fields by name; none: the format's own.
  std::vector<std::string> chosen = {};
};

struct Shown {
  std::span<const zorv::Field> fields;
  Style style;
};

// What JSON and CSV show of a record.
std::vector<const zorv::Field*> chosen_fields(const Shown& shown);

class RecordWriter {
 public:
  RecordWriter() = default;
  RecordWriter(const RecordWriter&) = delete;
  RecordWriter& operator=(const RecordWriter&) = delete;
  virtual ~RecordWriter() = default;

  virtual void add(const void* record) = 0;
  virtual void end_page() {}
};

struct Format {
  const char* name;
  const char* remark;  // behind the name in --help; may be empty
  std::unique_ptr<RecordWriter> (*make_writer)(const Shown& shown, std::string* out);
};

template <class Writer>
std::unique_ptr<RecordWriter> make_writer_of(const Shown& shown, std::string* out) {
  return std::make_unique<Writer>(shown, out);
}

// The first is what is used where none is asked for.
extern const std::span<const Format* const> kFormats;

// The format of that name, or null.
const Format* find_format(std::string_view name);

}  // namespace zorvctl
