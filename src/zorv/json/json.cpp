#include "json.h"

#include <iterator>
#include <memory>
#include <utility>

#include "json_storage.h"

using json_storage::Array;
using json_storage::as;
using json_storage::Object;

namespace {

template <class T>
void* store(T content) {
  return std::make_unique<T>(std::move(content)).release();
}

template <class T>
void free_as(void* value) {
  const std::unique_ptr<T> owned(static_cast<T*>(value));
}

// Where a container keeps its last child; null when it has none or is no container.
JsonValue** last_child(const JsonValue& node) {
  if (node.value == nullptr) {
    return nullptr;
  }
  if (node.type == JsonValue::ARRAY_TYPE) {
    auto& array = as<Array>(node.value);
    return array.empty() ? nullptr : &array.back();
  }
  if (node.type == JsonValue::OBJECT_TYPE) {
    auto& object = as<Object>(node.value);
    return object.empty() ? nullptr : &std::prev(object.end())->second;
  }
  return nullptr;
}

void drop_last_child(const JsonValue& node) {
  if (node.type == JsonValue::ARRAY_TYPE) {
    as<Array>(node.value).pop_back();
  } else {
    auto& object = as<Object>(node.value);
    object.erase(std::prev(object.end()));
  }
}

// Ends a value that has no children left.
void free_storage(JsonValue& node) {
  void* const value = std::exchange(node.value, nullptr);
  if (value == nullptr) {
    return;
  }
  switch (std::exchange(node.type, JsonValue::NULL_TYPE)) {
    case JsonValue::ARRAY_TYPE:
      return free_as<Array>(value);
    case JsonValue::OBJECT_TYPE:
      return free_as<Object>(value);
    case JsonValue::INT32_TYPE:
      return free_as<int>(value);
    case JsonValue::UINT32_TYPE:
      return free_as<unsigned int>(value);
    case JsonValue::INT64_TYPE:
      return free_as<long long>(value);
    case JsonValue::UINT64_TYPE:
      return free_as<unsigned long long>(value);
    case JsonValue::DOUBLE_TYPE:
      return free_as<double>(value);
    case JsonValue::STRING_TYPE:
      return free_as<std::string>(value);
    case JsonValue::JSON_T_TYPE:
      return json_decref(static_cast<json_t*>(value));  // leaves static values alone
    case JsonValue::BOOLEAN_TYPE:
      return free_as<bool>(value);
    case JsonValue::NULL_TYPE:
      return;
  }
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

// No stack and no memory is needed, however deep the tree: on the way down, the slot that named the
// child remembers the parent.
void JsonValue::destroy() {
  if (value == nullptr) {
    return;
  }
  JsonValue* parent = nullptr;
  JsonValue* node = this;
  for (;;) {
    JsonValue** const slot = last_child(*node);
    if (slot != nullptr && *slot != nullptr) {
      JsonValue* const child = std::exchange(*slot, parent);
      parent = std::exchange(node, child);
      continue;
    }
    if (slot != nullptr) {
      drop_last_child(*node);
      continue;
    }
    free_storage(*node);
    if (node == this) {
      return;
    }
    const std::unique_ptr<JsonValue> ended(node);
    node = parent;
    parent = *last_child(*node);
    drop_last_child(*node);
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
    auto& array = as<Array>(value);
    while (!array.empty()) {
      const std::unique_ptr<JsonValue> ended(array.back());
      array.pop_back();
    }
  } else if (type == OBJECT_TYPE) {
    auto& object = as<Object>(value);
    while (!object.empty()) {
      const std::unique_ptr<JsonValue> ended(object.begin()->second);
      object.erase(object.begin());
    }
  }
}

void JsonValue::erase(unsigned int index) {
  if (type != ARRAY_TYPE || value == nullptr) {
    return;
  }
  auto& array = as<Array>(value);
  const std::unique_ptr<JsonValue> ended(array[index]);
  array.erase(array.begin() + static_cast<std::ptrdiff_t>(index));
}

void JsonValue::erase(std::string key) {  // NOLINT(performance-unnecessary-value-param)
  if (type != OBJECT_TYPE || value == nullptr) {
    return;
  }
  auto& object = as<Object>(value);
  const auto found = object.find(key);
  if (found != object.end()) {
    const std::unique_ptr<JsonValue> ended(found->second);
    object.erase(found);
  }
}
