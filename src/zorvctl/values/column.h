// A column of a record, declared once: the name it has in the database, its heading in tables, what
// kind of value it holds and the record member it lives in. The declaration drives the table, JSON
// and CSV output, --sort, FIELD=VALUE filters and the options of "add".
//
// Records are handled as untyped memory here: only the declaration knows the record's type, and
// everything that works on columns is ordinary code. A kind that does not fit its member does not
// compile.
#pragma once

#include <cstddef>
#include <cstring>
#include <limits>
#include <span>
#include <string_view>
#include <type_traits>
#include <variant>

#include "zorv_records.h"

namespace zorvctl {

enum class Kind {
  text,
  integer,
  bytes,
  duration,  // seconds
  time,      // seconds since the epoch
  server_protocol,
  client_protocol,
  server_action,
  client_action,
};

// A text is a view of the record, or of the command line, that it came from.
using Value = std::variant<std::string_view, long long, unsigned long long>;

enum class Filled {
  by_caller,
  by_daemon,  // no option of "add"
};

struct Column {
  const char* name;
  const char* heading;  // null: not shown in tables
  Kind kind;
  Filled filled;
  size_t capacity;             // of a text, in bytes without the terminator
  long long lowest;            // of a number
  unsigned long long highest;  // of a number; never beyond what the database keeps as an integer
  Value (*get)(const void* record);
  // The value must be of the alternative that get() gives, and within the limits above.
  void (*set)(void* record, const Value& value);
};

using Columns = std::span<const Column>;

template <class Record, class Member>
Record record_of(Member Record::*);
template <class Record, class Member>
Member member_of(Member Record::*);

template <auto Member>
Value get_member(const void* record) {
  using Record = decltype(record_of(Member));
  const auto& member = static_cast<const Record*>(record)->*Member;
  using Type = std::remove_cvref_t<decltype(member)>;
  if constexpr (std::is_array_v<Type>) {
    return std::string_view(member, strnlen(member, sizeof member));
  } else if constexpr (std::is_signed_v<Type>) {
    return static_cast<long long>(member);
  } else {
    return static_cast<unsigned long long>(member);
  }
}

template <auto Member>
void set_member(void* record, const Value& value) {
  using Record = decltype(record_of(Member));
  auto& member = static_cast<Record*>(record)->*Member;
  using Type = std::remove_cvref_t<decltype(member)>;
  if constexpr (std::is_array_v<Type>) {
    const auto text = std::get<std::string_view>(value);
    const size_t length = text.size() < sizeof member ? text.size() : sizeof member - 1;
    std::memset(member, 0, sizeof member);
    text.copy(member, length);
  } else if constexpr (std::is_signed_v<Type>) {
    member = static_cast<Type>(std::get<long long>(value));
  } else {
    member = static_cast<Type>(std::get<unsigned long long>(value));
  }
}

template <auto Member>
consteval Column column(const char* name, const char* heading, Kind kind,
                        Filled filled = Filled::by_caller) {
  using Record = decltype(record_of(Member));
  using Type = std::remove_reference_t<decltype(std::declval<Record&>().*Member)>;
  Column result{name, heading, kind, filled, 0, 0, 0, get_member<Member>, set_member<Member>};
  if constexpr (std::is_array_v<Type>) {
    result.capacity = sizeof(Type) - 1;
    if (kind != Kind::text) {
      throw "an array of characters is a text";
    }
  } else {
    result.lowest = static_cast<long long>(std::numeric_limits<Type>::min());
    constexpr unsigned long long kLargestKept = std::numeric_limits<long long>::max();
    result.highest = static_cast<unsigned long long>(std::numeric_limits<Type>::max());
    result.highest = result.highest < kLargestKept ? result.highest : kLargestKept;
    const bool unsigned_kind = kind == Kind::time || kind == Kind::duration;
    const bool fits =
        unsigned_kind ? std::is_unsigned_v<Type> : kind == Kind::integer || std::is_signed_v<Type>;
    if (kind == Kind::text || !fits) {
      throw "the kind does not fit a number of this type";
    }
  }
  return result;
}

// The column of that name, or null.
inline const Column* find_column(Columns columns, std::string_view name) {
  for (const Column& column : columns) {
    if (column.name == name) {
      return &column;
    }
  }
  return nullptr;
}

}  // namespace zorvctl
