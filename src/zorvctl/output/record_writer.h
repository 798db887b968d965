// Records as text, in one of three formats. A writer appends to the string it was made with; the
// caller prints and empties that whenever it likes. JSON and CSV lines are complete after each
// add(); a table needs end_page(), which lines up the records added since the last one.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "column.h"
#include "time_argument.h"

namespace zorvctl {

enum class Format { table, json, csv };

// A column that only tables have, worked out from the record: JSON and CSV show what is stored.
struct ComputedColumn {
  std::string heading;
  bool is_amount;  // aligned to the right
  std::function<std::string(const void* record)> text;
};

struct Style {
  Zone zone = Zone::local;
  bool heading = true;  // of tables and CSV
  // To a terminal: CSV shows control characters escaped instead of raw, and tables are cut to
  // `columns` columns, 0 for any width.
  bool terminal = false;
  unsigned columns = 0;
};

class RecordWriter {
 public:
  RecordWriter() = default;
  RecordWriter(const RecordWriter&) = delete;
  RecordWriter& operator=(const RecordWriter&) = delete;
  virtual ~RecordWriter() = default;

  virtual void add(const void* record) = 0;
  virtual void end_page() {}
};

std::unique_ptr<RecordWriter> make_table_writer(Columns columns,
                                                std::vector<ComputedColumn> computed,
                                                const Style& style, std::string* out);
// One object a record and line, every column under its name, integers as they are stored. Text that
// is no UTF-8 has U+FFFD for each stray byte.
std::unique_ptr<RecordWriter> make_json_writer(Columns columns, std::string* out);
// RFC 4180: a line of names, fields quoted where they need it, lines ended with CR LF.
std::unique_ptr<RecordWriter> make_csv_writer(Columns columns, const Style& style,
                                              std::string* out);

// `text` as a JSON string, quotes included.
std::string json_string(std::string_view text);

}  // namespace zorvctl
