#include "json.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>

#include "json_ref.h"

namespace {

std::string written(const JsonValue& value) {
  std::string text;
  value.toString(text);
  char* buffer = nullptr;
  size_t size = 0;
  FILE* const stream = open_memstream(&buffer, &size);
  value.print(stream);
  fclose(stream);
  const JsonText printed(buffer);
  return text == buffer ? text : text + " " + buffer;
}

constexpr struct {
  void (*build)(JsonValue&);
  const char* text;
} kKinds[] = {
    {[](JsonValue& v) { v << std::numeric_limits<int>::min() << ~0U << ~0ULL; },
     "[-2147483648,4294967295,18446744073709551615]"},
    {[](JsonValue& v) { v = std::numeric_limits<long long>::min(); }, "-9223372036854775808"},
    {[](JsonValue& v) { v = -1234567.0; }, "-1.23457e+06 -1234567.000000"},
    {[](JsonValue& v) { v = std::string("\"\\\b\f\n\r\t\x1f \x7f\xC3\xFF\0", 13); },
     "\"\\\"\\\\\\b\\f\\n\\r\\t\\u001f \x7f\xC3\xFF\\u0000\""},
    {[](JsonValue& v) { v = json_pack("{s:[f,s]}", "a", 0.1234567, "\xC3\xBC"); },
     R"("{"a":[0.123457,"\u00FC"]}" {"a":[0.123457,"\u00FC"]})"},
    {[](JsonValue& v) { v << 1 << std::string("\0", 1) << 1.5 << true; },
     R"([1,"\u0000",1.5,true] [1,"\u0000",1.500000,true])"},
    {[](JsonValue& v) { (v["B\n"], v["A\xFF"]) << 1; }, "{\"A\xFF\":[1],\"B\\n\":null}"},
};

TEST(JsonValue, BecomesOneKindAfterTheOtherAndIsWrittenInBothStyles) {
  JsonValue value;
  for (const auto& kind : kKinds) {
    kind.build(value);
    EXPECT_EQ(written(value), kind.text);
  }
}

TEST(JsonValue, ErasesChildrenButNotTheContainer) {
  JsonValue value;
  value << 1 << "two" << 3 << "four";
  value[0U]->append(std::make_unique<JsonValue>().release());
  value.erase(2U);
  EXPECT_EQ(written(value), R"([[null],"two","four"])");
  value.erase();
  EXPECT_EQ(written(value), "[]");
  value["keep"] = 1;
  value["drop"] << "x";
  value.erase("drop");
  EXPECT_EQ(written(value), R"({"keep":1})");
  value.erase();
  EXPECT_EQ(written(value), "{}");
}

TEST(JsonValue, OwnsOneReferenceAndGivesUpWhatIsReplaced) {
  const JsonRef shared(json_array());
  JsonValue object;
  const std::unique_ptr<JsonValue> first(&object["key"]);
  *first = json_incref(shared.get());
  object["key"] = 2;
  EXPECT_EQ(written(object) + written(*first), R"({"key":2}"[]" [])");
  EXPECT_EQ(shared->refcount, 2U);
  *first = json_incref(shared.get());
  EXPECT_EQ(shared->refcount, 3U) << "the first one is the caller's to drop";
  *first = 1;
  EXPECT_EQ(shared->refcount, 2U);
  json_decref(shared.get());
}

}  // namespace
