#include "json.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstddef>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <vector>

#include "json_ref.h"

// Leaks are told apart by the test that made them, through jansson, which keeps no frame pointers.
extern "C" const char* __asan_default_options() {  // NOLINT: the sanitizer's name
  return "fast_unwind_on_malloc=0";
}

namespace {

std::string to_string(const JsonValue& value) {
  std::string text = ">";  // what is there stays
  value.toString(text);
  EXPECT_EQ(text[0], '>');
  return text.substr(1);
}

std::string printed(const JsonValue& value) {
  char* buffer = nullptr;
  size_t size = 0;
  FILE* const stream = open_memstream(&buffer, &size);
  value.print(stream);
  fclose(stream);
  const JsonText owned(buffer);
  return {buffer, size};
}

json_t* parsed(const char* text) {
  return json_loads(text, JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr);
}

using Build = std::function<void(JsonValue&)>;

struct WriterCase {
  Build build;
  const char* string_text;
  const char* stream_text;
};

// One value of every kind, and what the two writers make of it.
const std::vector<WriterCase>& every_kind() {
  static const std::vector<WriterCase> cases = {
      {[](JsonValue&) {}, "null", "null"},
      {[](JsonValue& v) { v = true; }, "true", "true"},
      {[](JsonValue& v) { v = std::numeric_limits<int>::min(); }, "-2147483648", "-2147483648"},
      {[](JsonValue& v) { v = std::numeric_limits<unsigned>::max(); }, "4294967295", "4294967295"},
      {[](JsonValue& v) { v = std::numeric_limits<long long>::min(); }, "-9223372036854775808",
       "-9223372036854775808"},
      {[](JsonValue& v) { v = std::numeric_limits<unsigned long long>::max(); },
       "18446744073709551615", "18446744073709551615"},
      {[](JsonValue& v) { v = 2.0; }, "2", "2.000000"},
      {[](JsonValue& v) { v = 1234567.0; }, "1.23457e+06", "1234567.000000"},
      {[](JsonValue& v) { v = -0.0; }, "-0", "-0.000000"},
      {[](JsonValue& v) { v = 1e-7; }, "1e-07", "0.000000"},
      {[](JsonValue& v) { v = std::numeric_limits<double>::infinity(); }, "inf", "inf"},
      {[](JsonValue& v) { v = "o'brien \"\\\x01"; }, R"("o'brien \"\\\u0001")",
       R"("o'brien \"\\\u0001")"},
      {[](JsonValue& v) { v = std::string(); }, R"("")", R"("")"},
      {[](JsonValue& v) { v = parsed(R"({"a": ["x", 0.1234567, "\u00fc"]})"); },
       R"("{"a":["x",0.123457,"\u00FC"]}")", R"({"a":["x",0.123457,"\u00FC"]})"},
      {[](JsonValue& v) { v = parsed("\"leaf\""); }, R"(""leaf"")", R"("leaf")"},
      {[](JsonValue& v) { v << 1 << "a" << 1.5 << parsed("[]"); }, R"([1,"a",1.5,"[]"])",
       R"([1,"a",1.500000,[]])"},
      {[](JsonValue& v) {
         v["b"] = 1;
         v["a\n"]["\xFF"] << false;
         v["B"];
       },
       "{\"B\":null,\"a\\n\":{\"\xFF\":[false]},\"b\":1}",
       "{\"B\":null,\"a\\n\":{\"\xFF\":[false]},\"b\":1}"},
  };
  return cases;
}

TEST(JsonValue, WritesEveryKindInBothStyles) {
  static_assert(offsetof(JsonValue, type) == 0 && sizeof(JsonValue::type) == 4);
  for (const WriterCase& expected : every_kind()) {
    JsonValue value;
    expected.build(value);
    EXPECT_EQ(to_string(value), expected.string_text);
    EXPECT_EQ(printed(value), expected.stream_text);
  }
  EXPECT_EQ(printed(JsonValue(-std::numeric_limits<double>::max())).size(), 1 + 309 + 7U);
}

TEST(JsonValue, EscapesEachByteSoThatAReaderGetsItBack) {
  EXPECT_EQ(escape_json("\"\\\b\f\n\r\t\x1f\x7f/"), R"(\"\\\b\f\n\r\t\u001f)"
                                                    "\x7f/");
  EXPECT_EQ(escape_json(std::string("a\0b", 3)), R"(a\u0000b)");
  EXPECT_EQ(escape_json("\x80\xC3\xBC\xFF"), "\x80\xC3\xBC\xFF");
  std::string ascii;
  for (int byte = 0; byte < 0x80; ++byte) {
    ascii += static_cast<char>(byte);
  }
  const JsonRef reread(parsed(to_string(JsonValue(ascii)).c_str()));
  ASSERT_TRUE(json_is_string(reread.get()));
  EXPECT_EQ(std::string(json_string_value(reread.get()), json_string_length(reread.get())), ascii);
}

TEST(JsonValue, BecomesAnyKindFromAnyKind) {
  const std::vector<Build> also = {
      [](JsonValue& v) { v = parsed("{}"); },
      [](JsonValue& v) { v = static_cast<json_t*>(nullptr); },
      [](JsonValue& v) { v.append(std::make_unique<JsonValue>("child").release()); },
      [](JsonValue& v) { EXPECT_EQ(v[3U], nullptr); },
  };
  for (const WriterCase& target : every_kind()) {
    if (std::string_view(target.string_text) == "null") {
      continue;
    }
    std::vector<Build> sources = also;
    for (const WriterCase& source : every_kind()) {
      sources.push_back(source.build);
    }
    for (const Build& source : sources) {
      JsonValue value;
      source(value);
      JsonValue fresh;
      target.build(fresh);
      if (value.type == fresh.type) {
        continue;
      }
      target.build(value);
      EXPECT_EQ(to_string(value), target.string_text);
    }
  }
}

TEST(JsonValue, ShiftingTurnsAStringIntoAnArray) {
  JsonValue value("gone");
  value << 1 << "two";
  EXPECT_EQ(to_string(value), R"([1,"two"])");
  *value[1U] = 2.0;
  value[0U]->append(std::make_unique<JsonValue>().release());
  EXPECT_EQ(to_string(value), "[[null],2]");
  value = "longer than the small texts";
  value = static_cast<const std::string*>(value.value)->c_str() + 12;
  EXPECT_EQ(to_string(value), "\"the small texts\"") << "a part of itself";
}

TEST(JsonValue, ErasesChildrenAndKeepsTheContainer) {
  JsonValue array;
  array << 0 << 1 << 2 << 3;
  array.erase(1U);
  array.erase(2U);
  array.erase("0");
  EXPECT_EQ(to_string(array), "[0,2]");
  array.erase();
  EXPECT_EQ(to_string(array), "[]");

  JsonValue object;
  object["keep"] = 1;
  object["drop"]["deep"] << "x";
  object.erase("drop");
  object.erase("never");
  object.erase(0U);
  EXPECT_EQ(to_string(object), R"({"keep":1})");
  object.erase();
  EXPECT_EQ(to_string(object), "{}");

  JsonValue scalar(5);
  scalar.erase();
  scalar.erase("5");
  scalar.erase(5U);
  EXPECT_EQ(to_string(scalar), "5");
}

TEST(JsonValue, OwnsOneReferenceToAJanssonValue) {
  const JsonRef shared(json_array());
  {
    JsonValue value(json_incref(shared.get()));
    JsonValue parent;
    parent["leaf"] = json_incref(shared.get());
    EXPECT_EQ(shared->refcount, 3U);
    value = 1;
    EXPECT_EQ(shared->refcount, 2U);
  }
  EXPECT_EQ(shared->refcount, 1U);
  { const JsonValue fixed(json_true()); }
  EXPECT_EQ(json_true()->refcount, static_cast<size_t>(-1));
}

TEST(JsonValue, ValuesWithoutStorageAreLeftAsTheyAre) {
  JsonValue empty;
  empty.type = JsonValue::ARRAY_TYPE;
  empty.destroy();
  EXPECT_EQ(empty.type, JsonValue::ARRAY_TYPE);
  empty.erase();
  EXPECT_EQ(empty[0U], nullptr);
  EXPECT_EQ(to_string(empty), "[]");

  JsonValue none(static_cast<json_t*>(nullptr));
  EXPECT_EQ(to_string(none) + printed(none), "\"\"");

  int outside = 0;
  JsonValue unknown;
  unknown.type = static_cast<JsonValue::Tag>(11);
  unknown.value = &outside;
  EXPECT_EQ(to_string(unknown) + printed(unknown), "");
  unknown.destroy();
  EXPECT_TRUE(unknown.type == JsonValue::NULL_TYPE && unknown.value == nullptr);
}

void* destroy_value(void* value) {
  static_cast<JsonValue*>(value)->destroy();
  return nullptr;
}

TEST(JsonValue, DestroysADeepTreeOnASmallStack) {
  JsonValue root;
  JsonValue* deepest = &root;
  for (int level = 0; level < 20000; ++level) {
    if (level % 2 == 0) {
      *deepest << 1 << level;
      deepest = (*deepest)[0U];
    } else {
      (*deepest)["left"] = "x";
      deepest = &(*deepest)["middle"];
    }
  }
  pthread_attr_t small_stack;
  pthread_attr_init(&small_stack);
  ASSERT_EQ(pthread_attr_setstacksize(&small_stack, 256 * 1024UL), 0);
  pthread_t thread{};
  ASSERT_EQ(pthread_create(&thread, &small_stack, destroy_value, &root), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&small_stack);
  EXPECT_EQ(to_string(root), "null");
}

// What these leak is meant to be leaked; lsan.supp names them.

[[gnu::noinline]] void leak_value_given_up_by_indexing() {
  JsonValue object;
  JsonValue& first = object["key"];
  first = 1;
  object["key"] = 2;
  EXPECT_EQ(to_string(object), R"({"key":2})");
  EXPECT_EQ(to_string(first), "1");
}

[[gnu::noinline]] void leak_reference_given_up_by_assigning() {
  json_t* const kept = json_pack("{s:s}", "kept", "by the caller");
  JsonValue value(kept);
  value = json_array();
  EXPECT_EQ(printed(value), "[]");
  EXPECT_EQ(kept->refcount, 1U);
}

TEST(JsonValue, GivesUpWhatIsReplacedWithoutDestroyingIt) {
  leak_value_given_up_by_indexing();
  leak_reference_given_up_by_assigning();
}

}  // namespace
