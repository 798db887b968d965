#include "json.h"

#include <memory>
#include <utility>

#include "json_storage.h"

using json_storage::Array;
using json_storage::as;
using json_storage::Object;

namespace {

template <class T>
void* store(T content) {
  return new T(std::move(content));
}

template <class T>
void free_as(void* value) {
  delete static_cast<T*>(value);
}

void delete_children(Array& array) {
  for (const JsonValue* const child : array) {
    delete child;
  }
  array.clear();
}

void delete_children(Object& object) {
  for (const auto& [key, child] : object) {
    delete child;
  }
  object.clear();
}

std::string text_of(const char* text) {
  return text != nullptr ? text : "";
}

}  // namespace

JsonValue::JsonValue(bool boolean) : type(BOOLEAN_TYPE), value(store(boolean)) {}
JsonValue::JsonValue(const char* text) : JsonValue(text_of(text)) {}
JsonValue::JsonValue(std::string text) : type(STRING_TYPE), value(store(std::move(text))) {}
JsonValue::JsonValue(double number) : type(DOUBLE_TYPE), value(store(number)) {}
JsonValue::JsonValue(int number) : type(INT32_TYPE), value(store(number)) {}
JsonValue::JsonValue(unsigned int number) : type(UINT32_TYPE), value(store(number)) {}
JsonValue::JsonValue(long long number) : type(INT64_TYPE), value(store(number)) {}
JsonValue::JsonValue(unsigned long long number) : type(UINT64_TYPE), value(store(number)) {}
JsonValue::JsonValue(json_t* json) : type(JSON_T_TYPE), value(json) {}

void JsonValue::destroy() {
  if (value == nullptr) {
    return;
  }
  erase();
  void* const storage = std::exchange(value, nullptr);
  switch (std::exchange(type, NULL_TYPE)) {
    case ARRAY_TYPE:
      return free_as<Array>(storage);
    case OBJECT_TYPE:
      return free_as<Object>(storage);
    case INT32_TYPE:
      return free_as<int>(storage);
    case UINT32_TYPE:
      return free_as<unsigned int>(storage);
    case INT64_TYPE:
      return free_as<long long>(storage);
    case UINT64_TYPE:
      return free_as<unsigned long long>(storage);
    case DOUBLE_TYPE:
      return free_as<double>(storage);
    case STRING_TYPE:
      return free_as<std::string>(storage);
    case JSON_T_TYPE:
      return json_decref(static_cast<json_t*>(storage));  // leaves static values alone
    case BOOLEAN_TYPE:
      return free_as<bool>(storage);
    case NULL_TYPE:
      return;
  }
}

template <class T>
JsonValue& JsonValue::assign(Tag tag, T&& content) {
  if (type != tag) {
    destroy();
  }
  if (value == nullptr) {
    value = store<std::decay_t<T>>(std::forward<T>(content));
  } else {
    as<std::decay_t<T>>(value) = std::forward<T>(content);
  }
  type = tag;
  return *this;
}

JsonValue& JsonValue::operator=(bool boolean) {
  return assign(BOOLEAN_TYPE, boolean);
}
JsonValue& JsonValue::operator=(const char* text) {
  return assign(STRING_TYPE, text_of(text));
}
JsonValue& JsonValue::operator=(std::string text) {
  return assign(STRING_TYPE, std::move(text));
}
JsonValue& JsonValue::operator=(double number) {
  return assign(DOUBLE_TYPE, number);
}
JsonValue& JsonValue::operator=(int number) {
  return assign(INT32_TYPE, number);
}
JsonValue& JsonValue::operator=(unsigned int number) {
  return assign(UINT32_TYPE, number);
}
JsonValue& JsonValue::operator=(long long number) {
  return assign(INT64_TYPE, number);
}
JsonValue& JsonValue::operator=(unsigned long long number) {
  return assign(UINT64_TYPE, number);
}
JsonValue& JsonValue::operator=(json_t* json) {
  if (type != JSON_T_TYPE) {
    destroy();
  }
  type = JSON_T_TYPE;
  value = json;
  return *this;
}

void JsonValue::append(JsonValue* child) {
  std::unique_ptr<JsonValue> owned(child);
  if (type != ARRAY_TYPE) {
    destroy();
  }
  if (type != ARRAY_TYPE || value == nullptr) {
    value = store(Array());
    type = ARRAY_TYPE;
  }
  as<Array>(value).push_back(child);
  static_cast<void>(owned.release());  // the array owns it now
}

template <class T>
JsonValue& JsonValue::push(T content) {
  append(std::make_unique<JsonValue>(std::move(content)).release());
  return *this;
}

JsonValue& JsonValue::operator<<(bool boolean) {
  return push(boolean);
}
JsonValue& JsonValue::operator<<(const char* text) {
  return push(text_of(text));
}
JsonValue& JsonValue::operator<<(std::string text) {
  return push(std::move(text));
}
JsonValue& JsonValue::operator<<(double number) {
  return push(number);
}
JsonValue& JsonValue::operator<<(int number) {
  return push(number);
}
JsonValue& JsonValue::operator<<(unsigned int number) {
  return push(number);
}
JsonValue& JsonValue::operator<<(long long number) {
  return push(number);
}
JsonValue& JsonValue::operator<<(unsigned long long number) {
  return push(number);
}
JsonValue& JsonValue::operator<<(json_t* json) {
  return push(json);
}

JsonValue* JsonValue::operator[](unsigned int index) {
  if (type == ARRAY_TYPE && value != nullptr) {
    return as<Array>(value)[index];
  }
  destroy();
  value = store(Array());
  type = ARRAY_TYPE;
  return nullptr;
}

JsonValue& JsonValue::operator[](std::string key) {
  if (type != OBJECT_TYPE) {
    destroy();
  }
  if (type != OBJECT_TYPE || value == nullptr) {
    value = store(Object());
    type = OBJECT_TYPE;
  }
  auto fresh = std::make_unique<JsonValue>();
  JsonValue*& slot = as<Object>(value)[std::move(key)];
  slot = fresh.release();
  return *slot;
}

void JsonValue::erase() {
  if (value == nullptr) {
    return;
  }
  if (type == ARRAY_TYPE) {
    delete_children(as<Array>(value));
  } else if (type == OBJECT_TYPE) {
    delete_children(as<Object>(value));
  }
}

void JsonValue::erase(unsigned int index) {
  if (type != ARRAY_TYPE || value == nullptr) {
    return;
  }
  auto& array = as<Array>(value);
  delete array[index];
  array.erase(array.begin() + static_cast<std::ptrdiff_t>(index));
}

void JsonValue::erase(std::string key) {  // NOLINT(performance-unnecessary-value-param)
  if (type != OBJECT_TYPE || value == nullptr) {
    return;
  }
  auto& object = as<Object>(value);
  const auto found = object.find(key);
  if (found != object.end()) {
    delete found->second;
    object.erase(found);
  }
}
