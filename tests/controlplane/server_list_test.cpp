// The two scanners for the catalogue's `servers` array.
#include "controlplane/server_list.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace {

using Objects = std::vector<std::string>;

struct Walk {
  bool ok;
  Objects objects;
};

Walk Extract(const std::string& body) {
  std::vector<std::string_view> views = {"stale"};
  const bool ok = ExtractServersArrayObjects(body, views);
  return {ok, Objects(views.begin(), views.end())};
}

TEST(ExtractServersArrayObjects, GivesTheObjectsWithTheirBraces) {
  const Walk walk = Extract(R"({"servers":[{"server_id":"a"},{"server_id":"b","n":1}],"more":[{}]})");
  EXPECT_TRUE(walk.ok);
  EXPECT_EQ(walk.objects, Objects({R"({"server_id":"a"})", R"({"server_id":"b","n":1})"}));
}

TEST(ExtractServersArrayObjects, AnEmptyArrayIsASuccess) {
  for (const char* body :
       {R"({"servers":[]})", "{\"servers\": \t\n\v\f\r[ \t\n\v\f\r]}", R"("servers":[])"}) {
    SCOPED_TRACE(body);
    EXPECT_TRUE(Extract(body).ok);
    EXPECT_EQ(Extract(body).objects, Objects());
  }
}

TEST(ExtractServersArrayObjects, TakesMissingAndTrailingCommas) {
  const Objects both = {R"({"server_id":"a"})", R"({"server_id":"b"})"};
  EXPECT_EQ(Extract(R"({"servers":[{"server_id":"a"}{"server_id":"b"}]})").objects, both);
  EXPECT_TRUE(Extract(R"({"servers":[{"server_id":"a"}{"server_id":"b"}]})").ok);
  EXPECT_TRUE(Extract(R"({"servers":[{"server_id":"a"},]})").ok);
  EXPECT_EQ(Extract("{\"servers\":[ {\"server_id\":\"a\"}\v,\f{\"server_id\":\"b\"}\n, ]}").objects, both);
}

TEST(ExtractServersArrayObjects, NeedsTheKeyWithItsColonAndAnArray) {
  for (const char* body : {"", "{}", R"({"servers":null})", R"({"servers" :[]})", R"({"servers":{}})",
                           R"({"servers":)", R"({"servers": )", R"({"servers":[)", R"({servers:[]})"}) {
    SCOPED_TRACE(body);
    EXPECT_FALSE(Extract(body).ok);
    EXPECT_EQ(Extract(body).objects, Objects());
  }
}

TEST(ExtractServersArrayObjects, RefusesWhatIsNoObject) {
  for (const char* body : {R"({"servers":[1]})", R"({"servers":["a"]})", R"({"servers":[[{}]]})",
                           R"({"servers":[,{}]})", R"({"servers":[null]})"}) {
    SCOPED_TRACE(body);
    EXPECT_FALSE(Extract(body).ok);
    EXPECT_EQ(Extract(body).objects, Objects());
  }
  EXPECT_FALSE(Extract(R"({"servers":[{},,{}]})").ok);
}

TEST(ExtractServersArrayObjects, RefusesAnArrayThatIsCutOff) {
  for (const char* body : {R"({"servers":[{"a":1})", R"({"servers":[{"a":1} )", R"({"servers":[{"a":1},)",
                           R"({"servers":[{"a":1}, )", R"({"servers":[{"a":1},{"b":)"}) {
    SCOPED_TRACE(body);
    EXPECT_FALSE(Extract(body).ok);
    EXPECT_EQ(Extract(body).objects, Objects({R"({"a":1})"}));
  }
}

TEST(ExtractServersArrayObjects, CountsBracesOutsideStringsOnly) {
  for (const char* object :
       {R"({"a":"}"})", R"({"a":"{"})", R"({"a":"\"}"})", R"({"a":"\\"})", R"({"a":{"b":{}}})",
        R"({"a":["x",{}]})", R"({\})", R"({[})", "{\"}\":\"line\nend\"}"}) {
    SCOPED_TRACE(object);
    const Walk walk = Extract("{\"servers\":[" + std::string(object) + ",{}]}");
    EXPECT_TRUE(walk.ok);
    EXPECT_EQ(walk.objects, Objects({object, "{}"}));
  }
}

TEST(ExtractServersArrayObjects, TakesTheFirstKeyWhateverItsDepth) {
  EXPECT_EQ(Extract(R"({"x":{"servers":[{"a":1}]},"servers":[{"b":1}]})").objects, Objects({R"({"a":1})"}));
  EXPECT_FALSE(Extract(R"({"x":{"servers":0},"servers":[{"b":1}]})").ok);
}

struct Number {
  const char* text;
  double value;
};

TEST(ExtractJsonNumberField, ReadsABareNumber) {
  for (const Number& one :
       {Number{R"({"n":48.85})", 48.85}, Number{R"({"n": -48.85})", -48.85}, Number{R"({"n":+5})", 5.0},
        Number{"{\"n\": \t\r\n7}", 7.0}, Number{R"({"n":.5})", 0.5}, Number{R"({"n":5.})", 5.0},
        Number{R"({"n":-.25)", -0.25}, Number{R"({"n":0)", 0.0}, Number{R"({"n":1.2.3})", 1.2},
        Number{R"({"n":12abc})", 12.0}, Number{R"({"n":1-2})", 1.0}, Number{R"({"n":91234.5})", 91234.5}}) {
    SCOPED_TRACE(one.text);
    double value = 99;
    EXPECT_TRUE(ExtractJsonNumberField(one.text, "n", value));
    EXPECT_EQ(value, one.value);
  }
}

TEST(ExtractJsonNumberField, ReadsNoExponentButRefusesANumberOutOfRange) {
  double value = 99;
  EXPECT_TRUE(ExtractJsonNumberField(R"({"n":1e5})", "n", value));
  EXPECT_EQ(value, 1.0);
  EXPECT_TRUE(ExtractJsonNumberField(R"({"n":-2E3})", "n", value));
  EXPECT_EQ(value, -2.0);
  value = 99;
  EXPECT_FALSE(ExtractJsonNumberField(R"({"n":1e400})", "n", value));
  EXPECT_FALSE(ExtractJsonNumberField(R"({"n":-1e400})", "n", value));
  EXPECT_FALSE(ExtractJsonNumberField("{\"n\":" + std::string(400, '9') + "}", "n", value));
  EXPECT_EQ(value, 99.0);
}

TEST(ExtractJsonNumberField, LeavesTheOutputWithoutANumber) {
  for (const char* text :
       {"", R"({"m":1})", R"({"n" :1})", R"({"n":)", R"({"n": )", R"({"n":-})", R"({"n":+})", R"({"n":.})",
        R"({"n":-.})", R"({"n":--1})", R"({"n":"48.85"})", R"({"n":null})", R"({"n":e5})", R"({"n":inf})",
        R"({"n":nan})", "{\"n\":\v7}", "{\"n\":\f7}", R"({"n":- 7})"}) {
    SCOPED_TRACE(text);
    double value = 99;
    EXPECT_FALSE(ExtractJsonNumberField(text, "n", value));
    EXPECT_EQ(value, 99.0);
  }
}

TEST(ExtractJsonNumberField, DoesNotReadHexadecimal) {
  double value = 99;
  EXPECT_TRUE(ExtractJsonNumberField(R"({"n":0x10})", "n", value));
  EXPECT_EQ(value, 0.0);
}

TEST(ExtractJsonNumberField, StaysWithinTheText) {
  const std::string text = R"({"n":12345})";
  double value = 99;
  EXPECT_TRUE(ExtractJsonNumberField(std::string_view(text).substr(0, 7), "n", value));
  EXPECT_EQ(value, 12.0);
}

}  // namespace
