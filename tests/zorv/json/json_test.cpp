#include "json.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <limits>
#include <memory>

#include "json_ref.h"

namespace {

// What the two writers make of a value, with a blank between where they differ.
std::string written(const JsonValue& value) {
  std::string text = ">";  // what is there stays
  value.toString(text);
  EXPECT_EQ(text[0], '>');
  text.erase(0, 1);
  char* buffer = nullptr;
  size_t size = 0;
  FILE* const stream = open_memstream(&buffer, &size);
  value.print(stream);
  fclose(stream);
  const JsonText owned(buffer);
  const std::string printed(buffer, size);
  return text == printed ? text : text + " " + printed;
}

json_t* parsed(const char* text) {
  return json_loads(text, JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr);
}

// One value of every kind, and what the two writers make of it.
const struct {
  std::function<void(JsonValue&)> build;
  const char* text;
} kKinds[] = {
    {[](JsonValue&) {}, "null"},
    {[](JsonValue& v) { v = true; }, "true"},
    {[](JsonValue& v) { v = std::numeric_limits<int>::min(); }, "-2147483648"},
    {[](JsonValue& v) { v = std::numeric_limits<unsigned>::max(); }, "4294967295"},
    {[](JsonValue& v) { v = std::numeric_limits<long long>::min(); }, "-9223372036854775808"},
    {[](JsonValue& v) { v = std::numeric_limits<unsigned long long>::max(); },
     "18446744073709551615"},
    {[](JsonValue& v) { v = 2.0; }, "2 2.000000"},
    {[](JsonValue& v) { v = 1234567.0; }, "1.23457e+06 1234567.000000"},
    {[](JsonValue& v) { v = 1e-7; }, "1e-07 0.000000"},
    {[](JsonValue& v) { v = "o'brien \"\\\b\f\n\r\t\x01\x1f\x7f/\xC3\xFF"; },
     "\"o'brien \\\"\\\\\\b\\f\\n\\r\\t\\u0001\\u001f\x7f/\xC3\xFF\""},
    {[](JsonValue& v) { v = std::string("a\0b", 3); }, R"("a\u0000b")"},
    {[](JsonValue& v) { v = parsed(R"({"a": ["x", 0.1234567, "\u00fc"]})"); },
     R"("{"a":["x",0.123457,"\u00FC"]}" {"a":["x",0.123457,"\u00FC"]})"},
    {[](JsonValue& v) { v = parsed("\"leaf\""); }, R"(""leaf"" "leaf")"},
    {[](JsonValue& v) { v = static_cast<json_t*>(nullptr); }, "\"\" "},
    {[](JsonValue& v) { v << 1 << "a" << 1.5 << parsed("[]"); },
     R"([1,"a",1.5,"[]"] [1,"a",1.500000,[]])"},
    {[](JsonValue& v) { EXPECT_EQ(v[3U], nullptr); }, "[]"},
    {[](JsonValue& v) {
       v["b"] = 1;
       v["a\n"]["\xFF"] << false;
       v["B"];
     },
     "{\"B\":null,\"a\\n\":{\"\xFF\":[false]},\"b\":1}"},
};

TEST(JsonValue, BecomesEveryKindFromEveryKindAndIsWrittenInBothStyles) {
  static_assert(offsetof(JsonValue, type) == 0 && sizeof(JsonValue::type) == 4);
  for (const auto& target : kKinds) {
    JsonValue fresh;
    target.build(fresh);
    EXPECT_EQ(written(fresh), target.text);
    for (const auto& source : kKinds) {
      JsonValue value;
      source.build(value);
      if (value.type != fresh.type && fresh.type != JsonValue::NULL_TYPE) {
        target.build(value);
        EXPECT_EQ(written(value), target.text);
      }
    }
  }
  EXPECT_EQ(written(JsonValue(-std::numeric_limits<double>::max())).size(), 13 + 1 + 309 + 8U);
}

TEST(JsonValue, AssignsWithinAndErasesChildrenButNotTheContainer) {
  JsonValue value("gone");
  value << 1 << "two" << 3 << "four";
  *value[1U] = 2.0;
  value[0U]->append(std::make_unique<JsonValue>().release());
  value.erase(2U);
  value.erase("0");
  EXPECT_EQ(written(value), R"([[null],2,"four"] [[null],2.000000,"four"])");
  value.erase();
  EXPECT_EQ(written(value), "[]");

  value["keep"] = 1;
  value["drop"]["deep"] << "x";
  value.erase("drop");
  value.erase("never");
  value.erase(0U);
  EXPECT_EQ(written(value), R"({"keep":1})");
  value.erase();
  EXPECT_EQ(written(value), "{}");

  value = "longer than the small texts";
  value = static_cast<const std::string*>(value.value)->c_str() + 12;
  value.erase();
  value.erase("5");
  value.erase(5U);
  EXPECT_EQ(written(value), "\"the small texts\"") << "a part of itself";
  value.destroy();
  EXPECT_TRUE(value.type == JsonValue::NULL_TYPE && value.value == nullptr);
  value.type = JsonValue::ARRAY_TYPE;
  value.destroy();
  EXPECT_EQ(value.type, JsonValue::ARRAY_TYPE) << "without storage";
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

TEST(JsonValue, GivesUpWhatIsReplacedWithoutDestroyingIt) {
  JsonValue object;
  const std::unique_ptr<JsonValue> first(&object["key"]);
  *first = 1;
  object["key"] = 2;
  EXPECT_EQ(written(object), R"({"key":2})");
  EXPECT_EQ(written(*first), "1");

  const JsonRef kept(json_pack("{s:s}", "kept", "by the caller"));
  JsonValue value(kept.get());
  value = json_array();
  EXPECT_EQ(written(value), "\"[]\" []");
  EXPECT_EQ(kept->refcount, 1U);
}

}  // namespace
