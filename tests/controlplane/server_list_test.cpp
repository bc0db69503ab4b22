// The two scanners for the catalogue's `servers` array.
#include "controlplane/server_list.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "controlplane/json_text.h"

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
                           R"({"servers":[,{}]})", R"({"servers":[null]})", "{\"servers\":[\b{}]}"}) {
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
  for (const char* text : {R"({"n":7e+5})", R"({"n":7E-5})", R"({"n":7:})", R"({"n":7/})"}) {
    EXPECT_TRUE(ExtractJsonNumberField(text, "n", value)) << text;
    EXPECT_EQ(value, 7.0) << text;
  }
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

// ---- Records ----

// What the flat readers find in an object, one field after the other.
ServerRecord ByFlatReaders(std::string_view object) {
  ServerRecord server;
  ReadServerFields(object, server);
  uint8_t online = 0;
  JsonGetBool(object, "online", online);
  server.online = online != 0;
  JsonGetString(object, "last_seen_at", server.last_seen_at);
  return server;
}

std::string Told(const ServerRecord& server) {
  std::ostringstream told;
  told.precision(17);
  told << server.id << '|' << server.name << '|' << server.country << '|' << server.city << '|'
       << server.latitude << '|' << server.longitude << '|' << server.public_egress_ip << '|' << server.online
       << '|' << server.last_seen_at;
  return told.str();
}

const std::string kWhole =
    R"({"server_id":"s-1","name":"Paris","country":"France","city":"Paris","latitude":48.8566,)"
    R"("longitude":-2.3522,"public_egress_ip":"203.0.113.7","online":true,)"
    R"("last_seen_at":"2026-05-04T03:02:01Z"})";

TEST(ReadServerRecords, ReadsEveryField) {
  std::vector<ServerRecord> servers;
  ASSERT_TRUE(ReadServerRecords(R"({"servers":[)" + kWhole + "," + kWhole + "]}", servers));
  ASSERT_EQ(servers.size(), 2U);
  EXPECT_EQ(Told(servers[1]),
            "s-1|Paris|France|Paris|48.8566|-2.3521999999999998|203.0.113.7|1|2026-05-04T03:02:01Z");
}

TEST(ReadServerRecords, KeepsNothingOfAnArrayThatIsCutOff) {
  std::vector<ServerRecord> servers(3);
  EXPECT_FALSE(ReadServerRecords(R"({"servers":[)" + kWhole + ",", servers));
  EXPECT_TRUE(servers.empty());
}

TEST(ReadServerRecords, FindsWhatTheFlatReadersFind) {
  const std::string objects[] = {
      "{}",
      R"({"server_id":"a\"b","name":"c"})",                  // a value ends at an escaped quote
      R"({"x":"server_id","server_id":"real","name":"n"})",  // a value that is a key
      R"({"server_id":7,"name":"n"})",                       // no string: the next quoted text
      R"({"inner":{"server_id":"in"},"server_id":"out"})",   // the first one, at any depth
      R"({"server_id"   :   "spaced","latitude" : 1.5,"longitude":  2.5})",  // no blank before a number's
                                                                             // colon
      R"({"latitude":"48.8","longitude":-0.0001})",                          // a quoted number is none
      R"({"latitude" : 1,"latitude":2,"longitude":1e5})",                    // the first one with its colon
      R"({"latitude":123456789012345678,"longitude":0.1234567890123456})",   // too long for exact digits
      R"({"latitude":1e400,"longitude":+.5})",                               // out of range, and odd ones
      R"({"online": falsey,"last_seen_at":null,"city":"}{"})",               // braces in a string
      R"({"online":true)"
      "\n"
      R"(,"name":"}\\","city":"\"{"})",  // escapes, and braces behind them
      R"({"server_id":"cut)",            // no object: refused as a whole
      R"({"name":"x","last_seen_at"})",  // a key without a colon
      "{\"name\":\"" + std::string(500, 'n') + "\",\"city\":\"" + std::string(64, '{') + "\"}",
      R"({"cxxxxxxxxxxx":"like city, but longer","city":"c"})",
      R"({"name":7})",
      R"({"x":"name","y":7})",
      R"({"name":"city","city":"x","country":7,"server_id":"online","online":true})",  // keys as values
      R"({"online":true,"name" : "longitude","longitude":2,"latitude":1,"city":"c"})",
      R"({"public_egress_at":"x","public_egress_ip":"y","longituda":1,"nama":"z"})",
      kWhole,
  };
  for (const std::string& object : objects) {
    for (const std::string& behind : {std::string("]"), "," + kWhole + "]"}) {
      const std::string body = R"({"servers":[)" + object + behind;
      std::vector<std::string_view> views;
      std::vector<ServerRecord> servers;
      const bool whole = ExtractServersArrayObjects(body, views);
      ASSERT_EQ(ReadServerRecords(body, servers), whole) << body;
      if (!whole) continue;
      ASSERT_EQ(servers.size(), views.size()) << body;
      for (size_t i = 0; i < views.size(); ++i)
        EXPECT_EQ(Told(servers[i]), Told(ByFlatReaders(views[i]))) << body;
    }
  }
}

}  // namespace
