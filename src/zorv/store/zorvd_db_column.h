// A column, declared once: its name, SQL type, value format and the record member it lives in.
//
// The declaration drives the CREATE, insert and update texts (ColumnText), the arguments of the
// insert statement (arguments) and the reading of a result row (read_row). A format that does not
// fit its member does not compile. The "id" column is in no declaration: every record has it first,
// and SQLite assigns it.
#pragma once

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "long_conversion.h"
#include "zorv_records.h"

namespace store {

struct ColumnText {
  const char* name;
  const char* type;    // SQL type
  const char* format;  // of its value in sqlite3_mprintf's language
};

// How an integer column is read: at the width of its member, or at 64 bits of which the member
// keeps the low ones.
enum class Conversion { by_member, long_long };

template <class Record, class Member>
struct Column {
  ColumnText text;
  Member Record::*member;
  Conversion conversion;
};

// A text column that keeps the value which the row with the same key already has: the format asks
// for the key twice and then for the value.
template <class Record, class Key, class Member>
struct KeptColumn {
  ColumnText text;
  Key Record::*key;
  Member Record::*member;
};

template <class Member>
consteval std::string_view sql_type_of() {
  return std::is_array_v<Member> ? "TEXT" : "INTEGER";
}

template <class Member>
consteval std::string_view format_of() {
  if constexpr (std::is_array_v<Member>) {
    return "'%q'";
  } else if constexpr (std::is_same_v<Member, int>) {
    return "%d";
  } else if constexpr (std::is_same_v<Member, record_uint64>) {
    return "%llu";
  } else {
    static_assert(std::is_same_v<Member, record_int64>, "no column holds a member of this type");
    return "%lld";
  }
}

template <class Record, class Member>
consteval Column<Record, Member> column(const char* name, const char* type, const char* format,
                                        Member Record::*member,
                                        Conversion conversion = Conversion::by_member) {
  if (sql_type_of<Member>() != type || format_of<Member>() != format) {
    throw "the SQL type or the value format does not fit the member";
  }
  return {{name, type, format}, member, conversion};
}

template <class Record, class Key, class Member>
consteval KeptColumn<Record, Key, Member> kept_column(const char* name, const char* format,
                                                      Key Record::*key, Member Record::*member) {
  static_assert(std::is_array_v<Key> && std::is_array_v<Member>, "only texts are kept");
  return {{name, "TEXT", format}, key, member};
}

// What the insert statement's format is filled with, in the order of the columns.
template <class Record, class Member>
auto arguments(const Column<Record, Member>& column, const Record& record) {
  if constexpr (std::is_array_v<Member>) {
    return std::make_tuple(static_cast<const char*>(record.*column.member));
  } else {
    return std::make_tuple(record.*column.member);
  }
}

template <class Record, class Key, class Member>
auto arguments(const KeptColumn<Record, Key, Member>& column, const Record& record) {
  const char* key = record.*column.key;
  return std::make_tuple(key, key, static_cast<const char*>(record.*column.member));
}

// Ends a text that came without terminator at its last byte.
template <class Record, class AnyColumn>
void bound_text(const AnyColumn& column, Record& record) {
  auto& value = record.*column.member;
  if constexpr (std::is_array_v<std::remove_reference_t<decltype(value)>>) {
    value[sizeof value - 1] = '\0';
  }
}

template <size_t Size>
void read_value(const char* text, char (&ret_value)[Size], Conversion /*unused*/ = {}) {
  const char* source = text != nullptr ? text : "NULL";
  const size_t length = std::min(std::strlen(source), Size - 1);
  std::memcpy(ret_value, source, length);
  ret_value[length] = '\0';
  ret_value[Size - 1] = '\0';
}

inline void read_value(const char* text, int& ret_value, Conversion conversion) {
  if (text == nullptr) {
    ret_value = -1;
  } else if (conversion == Conversion::long_long) {
    ret_value = static_cast<int>(std::strtoll(text, nullptr, 10));
  } else {
    ret_value = long_conversion(text);
  }
}

inline void read_value(const char* text, record_int64& ret_value, Conversion /*unused*/) {
  ret_value = text != nullptr ? std::strtoll(text, nullptr, 10) : -1;
}

inline void read_value(const char* text, record_uint64& ret_value, Conversion /*unused*/) {
  ret_value = text != nullptr ? static_cast<record_uint64>(std::strtoll(text, nullptr, 10))
                              : static_cast<record_uint64>(-1);
}

template <class Record, class Member>
void read_column(const Column<Record, Member>& column, const char* text, Record& ret_record) {
  read_value(text, ret_record.*column.member, column.conversion);
}

template <class Record, class Key, class Member>
void read_column(const KeptColumn<Record, Key, Member>& column, const char* text,
                 Record& ret_record) {
  read_value(text, ret_record.*column.member);
}

// All columns of a table, "id" apart.
template <class... AnyColumn>
using Columns = std::tuple<AnyColumn...>;

template <class... AnyColumn>
constexpr auto column_texts(const Columns<AnyColumn...>& columns) {
  return std::apply(
      [](const auto&... column) {
        return std::array<ColumnText, sizeof...(AnyColumn)>{column.text...};
      },
      columns);
}

template <class Record, class... AnyColumn>
auto insert_arguments(const Columns<AnyColumn...>& columns, const Record& record) {
  return std::apply(
      [&record](const auto&... column) { return std::tuple_cat(arguments(column, record)...); },
      columns);
}

template <class Record, class... AnyColumn>
void bound_texts(const Columns<AnyColumn...>& columns, Record& record) {
  std::apply([&record](const auto&... column) { (bound_text(column, record), ...); }, columns);
}

// Fills a zeroed record from a row's texts, which stand in the declared order behind "id". A table
// that some other program changed may give fewer texts than declared: the missing ones read as
// NULL.
template <class Record, class... AnyColumn>
void read_row(const Columns<AnyColumn...>& columns, int text_count, char** texts,
              Record& ret_record) {
  const auto text_at = [text_count, texts](int index) -> const char* {
    return index < text_count ? texts[index] : nullptr;
  };
  const char* id = text_at(0);
  ret_record.id = id != nullptr ? long_conversion(id) : -1;
  int index = 0;
  std::apply(
      [&](const auto&... column) { (read_column(column, text_at(++index), ret_record), ...); },
      columns);
}

}  // namespace store
