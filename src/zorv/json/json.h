// JsonValue: an owning tree of JSON values with a compact writer of its own.
//
// A value is a tag and the storage behind it:
//
//   NULL_TYPE     nothing                      DOUBLE_TYPE   one double
//   ARRAY_TYPE    sequence of owned children   STRING_TYPE   one string
//   OBJECT_TYPE   children in byte order of    JSON_T_TYPE   a jansson value; one reference to it
//                 their keys                                 is owned, the one that was given
//   (U)INT32/64   one integer                  BOOLEAN_TYPE  one byte, 0 for false
//
// Children are heap values reached by pointer; a value owns all that hangs below it. A tree is used
// by one thread at a time and must not contain itself.
//
// Indexing by key is for building: every use puts a fresh null under the key, also where the key
// stands already. What stood there is given up and not destroyed, since a caller may still hold the
// reference that an earlier use returned. Assigning a jansson value over a jansson value replaces
// the pointer and keeps the old reference, which is the caller's to drop.
//
// The writers and destroy() recurse: 10,000 levels are safe on a thread with 8 MiB of stack.
// jansson itself refuses to read more than 2048.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <cstdio>
#include <string>

class JsonValue {
 public:
  enum Tag : uint32_t {
    NULL_TYPE = 0,
    ARRAY_TYPE = 1,
    OBJECT_TYPE = 2,
    INT32_TYPE = 3,
    UINT32_TYPE = 4,
    INT64_TYPE = 5,
    UINT64_TYPE = 6,
    DOUBLE_TYPE = 7,
    STRING_TYPE = 8,
    JSON_T_TYPE = 9,
    BOOLEAN_TYPE = 10,
  };

  Tag type = NULL_TYPE;
  void* value = nullptr;  // null when the value holds nothing

  // Implicit: a setting is handed over as the plain C++ value it is.
  JsonValue() = default;
  JsonValue(bool boolean);
  JsonValue(const char* text);
  JsonValue(std::string text);
  JsonValue(double number);
  JsonValue(int number);
  JsonValue(unsigned int number);
  JsonValue(long long number);
  JsonValue(unsigned long long number);
  JsonValue(json_t* json);  // takes over the caller's reference
  ~JsonValue() { destroy(); }

  // One owner per tree.
  JsonValue(const JsonValue&) = delete;
  JsonValue& operator=(const JsonValue&) = delete;

  // A value of another kind is destroyed first; storage of the same kind is used again.
  JsonValue& operator=(bool boolean);
  JsonValue& operator=(const char* text);
  JsonValue& operator=(std::string text);
  JsonValue& operator=(double number);
  JsonValue& operator=(int number);
  JsonValue& operator=(unsigned int number);
  JsonValue& operator=(long long number);
  JsonValue& operator=(unsigned long long number);
  JsonValue& operator=(json_t* json);

  // Adds at the end and takes ownership. Anything that is not an array is destroyed first and
  // becomes one, here and with operator<<.
  void append(JsonValue* child);

  JsonValue& operator<<(bool boolean);
  JsonValue& operator<<(const char* text);
  JsonValue& operator<<(std::string text);
  JsonValue& operator<<(double number);
  JsonValue& operator<<(int number);
  JsonValue& operator<<(unsigned int number);
  JsonValue& operator<<(long long number);
  JsonValue& operator<<(unsigned long long number);
  JsonValue& operator<<(json_t* json);
  JsonValue& operator<<(JsonValue*) = delete;  // would be read as a bool: append() takes children

  // The element itself, without a check of the bounds. Anything that is not an array becomes an
  // empty one; there is no element then and the result is null.
  JsonValue* operator[](unsigned int index);

  // A new null under `key`, to be assigned to. Anything that is not an object becomes one.
  JsonValue& operator[](std::string key);

  // Removes the children; the container stays. Other kinds are left alone.
  void erase();
  void erase(unsigned int index);  // no check of the bounds
  void erase(std::string key);

  // Releases everything below this value, which is NULL_TYPE then. A value without storage is left
  // as it is.
  void destroy();

  // The value's text, appended to `out` or written to `stream`. The two differ: a real has six
  // significant digits in toString and six decimals in print, and a jansson value stands between
  // quotes (nothing inside them escaped) in toString and without quotes in print.
  void toString(std::string& out) const;
  void print(FILE* stream) const;

 private:
  template <class T>
  JsonValue& assign(Tag tag, T&& content);
  template <class T>
  JsonValue& push(T content);
};

// The text with quotes, backslashes and bytes below 0x20 escaped; all other bytes pass.
std::string escape_json(const std::string& text);
