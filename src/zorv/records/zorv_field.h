// A field of a record: its name, its heading in tables for people, what it means, and the record
// member it lives in; the type follows from the member.
//
// Records are handled as untyped memory: only a field knows its record's type, and whatever works
// on fields is ordinary code. Everything is constant and may be used from any thread.
#pragma once

#include <span>
#include <string_view>
#include <type_traits>
#include <variant>

#include "zorv_connection_codes.h"
#include "zorv_records.h"

namespace zorv {

enum class Meaning {
  text,
  address,    // a text: one of IPv4 or IPv6
  addresses,  // a text: one or several of them, with commas between
  number,
  bytes,
  seconds,
  time,
  code,
};

enum class FieldType {
  text,
  int32,
  wrapped_int32,  // keeps the low 32 bits of the number in the database
  int64,
  uint64,
};

// A text is a view of the record, or of whatever else it came from. Only a computed field may have
// no value, the last alternative.
using FieldValue = std::variant<std::string_view, record_int64, record_uint64, std::monostate>;

// Where a table shows a field that nobody asked for: a column from the left, 0 for none. Where the
// columns do not fit, those with the largest `spare` are left out first, and those with 0 never.
struct Place {
  int column = 0;
  int spare = 0;
};

struct Field {
  const char* name;     // of the column, of the filter, of the option
  const char* heading;  // the name that people read and type; null: shown only where asked for
  Meaning meaning;
  std::span<const CodeWord> words;  // of a code
  FieldType type;
  size_t size;  // of the member, in bytes
  void* (*member)(void* record);
  Place place = {};
  bool is_computed = false;  // by who shows the record: neither stored nor known to the daemon
  bool (*has_value)(const void* record) = nullptr;  // null: always

  bool is_text() const { return type == FieldType::text; }
  // A code that nobody stored as a number has its word for a value.
  bool is_word() const { return is_computed && meaning == Meaning::code; }
};

// A text ends at its terminator, or with its last byte.
FieldValue get(const Field& field, const void* record);
// The value must be of the alternative that get() gives. A text is cut to what the member holds
// with its terminator; a number keeps the bits that the member has.
void set(const Field& field, void* record, const FieldValue& value);

// Fills a text of a record: cut to what `size` bytes hold with the terminator, zero behind it.
void copy_text(char* ret_text, size_t size, std::string_view text);
template <size_t Size>
void copy_text(char (&ret_text)[Size], std::string_view text) {
  copy_text(ret_text, Size, text);
}

namespace field_detail {

template <class Record, class Member>
Record record_of(Member Record::*);
template <class Record, class Member>
Member member_of(Member Record::*);

// GCC 12 shares these between sources also for records of unnamed namespaces: two of them must not
// have the same name.
template <auto Member>
void* address(void* record) {
  return &(static_cast<decltype(record_of(Member))*>(record)->*Member);
}

template <class Member>
consteval FieldType type_of() {
  if constexpr (std::is_same_v<Member, int>) {
    return FieldType::int32;
  } else if constexpr (std::is_same_v<Member, record_int64>) {
    return FieldType::int64;
  } else {
    static_assert(std::is_same_v<Member, record_uint64>, "no column holds a member of this type");
    return FieldType::uint64;
  }
}

template <class Record, size_t Size>
consteval size_t text_size(char (Record::*)[Size]) {
  return Size;
}
template <class Record, class Member>
consteval size_t text_size(Member Record::*) {
  return 0;
}

}  // namespace field_detail

// A field of that member. One whose meaning does not fit the member does not compile.
template <auto Member>
consteval Field field(const char* name, const char* heading, Meaning meaning, Place place = {}) {
  constexpr size_t kText = field_detail::text_size(Member);
  const bool is_text =
      meaning == Meaning::text || meaning == Meaning::address || meaning == Meaning::addresses;
  if ((kText != 0) != is_text || meaning == Meaning::code) {
    throw "an array of characters is a text, and only that";
  }
  if constexpr (kText != 0) {
    return {name, heading, meaning, {}, FieldType::text, kText, field_detail::address<Member>,
            place};
  } else {
    using Number = decltype(field_detail::member_of(Member));
    const bool is_amount = meaning == Meaning::seconds || meaning == Meaning::time;
    if (is_amount && !std::is_unsigned_v<Number>) {
      throw "times and durations are unsigned";
    }
    return {name,
            heading,
            meaning,
            {},
            field_detail::type_of<Number>(),
            sizeof(Number),
            field_detail::address<Member>,
            place};
  }
}

template <auto Member>
consteval Field code(const char* name, const char* heading, std::span<const CodeWord> words,
                     Place place = {}) {
  static_assert(std::is_same_v<decltype(field_detail::member_of(Member)), int>, "a code is an int");
  return {name,
          heading,
          Meaning::code,
          words,
          FieldType::int32,
          sizeof(int),
          field_detail::address<Member>,
          place};
}

// The same for what is worked out from a record; without a value unless `has_value` says so.
consteval Field computed(Field field, bool (*has_value)(const void* record) = nullptr) {
  field.is_computed = true;
  field.has_value = has_value;
  return field;
}

// The same for an int that keeps the low 32 bits of a larger number.
consteval Field wrapped(Field field) {
  field.type = FieldType::wrapped_int32;
  return field;
}

}  // namespace zorv
