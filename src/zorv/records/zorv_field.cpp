#include "zorv_field.h"

#include <cstring>

namespace zorv {

FieldValue get(const Field& field, const void* record) {
  if (field.has_value != nullptr && !field.has_value(record)) {
    return std::monostate();
  }
  const void* const member = field.member(const_cast<void*>(record));
  if (field.is_word()) {
    const char* const word = word_of(field.words, *static_cast<const int*>(member));
    return word != nullptr ? FieldValue(std::string_view(word)) : std::monostate();
  }
  switch (field.type) {
    case FieldType::text: {
      const auto* const text = static_cast<const char*>(member);
      return std::string_view(text, strnlen(text, field.size));
    }
    case FieldType::int32:
    case FieldType::wrapped_int32:
      return record_int64{*static_cast<const int*>(member)};
    case FieldType::int64:
      return *static_cast<const record_int64*>(member);
    case FieldType::uint64:
      break;
  }
  return *static_cast<const record_uint64*>(member);
}

void set(const Field& field, void* record, const FieldValue& value) {
  void* const member = field.member(record);
  switch (field.type) {
    case FieldType::text:
      copy_text(static_cast<char*>(member), field.size, std::get<std::string_view>(value));
      break;
    case FieldType::int32:
    case FieldType::wrapped_int32:
      *static_cast<int*>(member) = static_cast<int>(std::get<record_int64>(value));
      break;
    case FieldType::int64:
      *static_cast<record_int64*>(member) = std::get<record_int64>(value);
      break;
    case FieldType::uint64:
      *static_cast<record_uint64*>(member) = std::get<record_uint64>(value);
      break;
  }
}

void copy_text(char* ret_text, size_t size, std::string_view text) {
  std::memset(ret_text, 0, size);
  text.copy(ret_text, size - 1);
}

}  // namespace zorv
