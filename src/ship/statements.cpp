#include "statements.h"

#include <fmt/format.h>

namespace ship {
namespace {

using zorv::Field;
using zorv::Meaning;

const char* type_of(const Field& field) {
  if (field.meaning == Meaning::time) {
    return "timestamptz";
  }
  switch (field.type) {
    case zorv::FieldType::text:
      return "text";
    case zorv::FieldType::int32:
    case zorv::FieldType::wrapped_int32:
      return "integer";
    case zorv::FieldType::int64:
    case zorv::FieldType::uint64:
      break;
  }
  return "bigint";
}

// What `text_of` gives for each field, with commas between.
template <class TextOf>
std::string list(const ShippedLog& log, TextOf text_of) {
  std::string texts;
  for (const Field& field : log.table->fields) {
    texts += (texts.empty() ? "" : ", ") + text_of(field);
  }
  return texts;
}

std::string staging(const ShippedLog& log) {
  return fmt::format("pg_temp.new_{}", log.name);
}

}  // namespace

std::string column_names(const ShippedLog& log) {
  return list(log, [](const Field& field) { return std::string(field.name); });
}

std::string column_definitions(const ShippedLog& log) {
  return list(log, [](const Field& field) {
    return fmt::format("{} {} NOT NULL", field.name, type_of(field));
  });
}

std::string make_staging(const ShippedLog& log) {
  return fmt::format("CREATE TEMPORARY TABLE new_{} ({}) ON COMMIT DELETE ROWS", log.name,
                     list(log, [](const Field& field) {
                       const bool is_time = field.meaning == Meaning::time;
                       return fmt::format("{} {}", field.name, is_time ? "bigint" : type_of(field));
                     }));
}

std::string copy_into_staging(const ShippedLog& log) {
  return fmt::format("COPY {} FROM STDIN", staging(log));
}

std::string insert_from_staging(const ShippedLog& log, const std::string& nas,
                                long long generation) {
  // Without a conflict target, which would ask for the right to read.
  return fmt::format(
      "INSERT INTO zorv.{} (nas, generation, {}) SELECT {}, {}, {} FROM {} ON CONFLICT DO NOTHING",
      log.name, column_names(log), nas, generation,
      list(log,
           [](const Field& field) {
             return field.meaning == Meaning::time ? timestamp_of(field.name)
                                                   : std::string(field.name);
           }),
      staging(log));
}

// to_timestamp() goes by way of a double.
std::string timestamp_of(const std::string& seconds) {
  return fmt::format(
      "CASE WHEN {0} < 9224318016000 THEN timestamptz 'epoch' + "
      "make_interval(days => ({0} / 86400)::integer, secs => {0} % 86400) ELSE 'infinity' END",
      seconds);
}

}  // namespace ship
