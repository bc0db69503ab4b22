// The catalogue and the flat readers, beside simdjson and memchr.
#include <benchmark/benchmark.h>
#include <simdjson.h>

#include <cstring>
#include <string>

#include "controlplane/json_text.h"
#include "controlplane/server_list.h"

namespace {

constexpr size_t kBodySize = 1 << 20;  // bytes

std::string Server(int64_t number) {
  const std::string text = std::to_string(number);
  return R"({"server_id":"city-)" + text + R"(","name":"Somewhere Pleasant )" + text +
         R"(","country":"Elsewhere","city":"Springfield )" + text + R"(","latitude":)" +
         std::to_string(static_cast<double>(number % 180) - 89.875) + R"(,"longitude":)" +
         std::to_string(static_cast<double>(number % 360) - 179.0625) + R"(,"public_egress_ip":"203.0.)" +
         std::to_string(number / 256 % 256) + "." + std::to_string(number % 256) + R"(","online":)" +
         (number % 7 == 0 ? "false" : "true") + R"(,"last_seen_at":"2026-05-04T03:02:01.5Z"})";
}

std::string Catalogue(int64_t servers) {
  std::string body = R"({"servers":[)";
  for (int64_t number = 0; number < servers; ++number) body += (number == 0 ? "" : ",") + Server(number);
  return body + "]}";
}

// A megabyte of an answer with the key as its last one.
std::string BodyWithLastKey(const std::string& member) {
  std::string body = R"({"servers":[)";
  for (int64_t number = 0; body.size() < kBodySize; ++number)
    body += (number == 0 ? "" : ",") + Server(number);
  return body + "]," + member + "}";
}

std::string Text(simdjson::ondemand::object& object, const char* key) {
  return std::string(std::string_view(object.find_field_unordered(key)));
}

ServerRecord BySimdjson(simdjson::ondemand::object object) {
  ServerRecord server;
  server.id = Text(object, "server_id");
  server.name = Text(object, "name");
  server.country = Text(object, "country");
  server.city = Text(object, "city");
  server.latitude = object.find_field_unordered("latitude");
  server.longitude = object.find_field_unordered("longitude");
  server.public_egress_ip = Text(object, "public_egress_ip");
  server.online = object.find_field_unordered("online");
  server.last_seen_at = Text(object, "last_seen_at");
  return server;
}

std::vector<ServerRecord> CatalogueBySimdjson(simdjson::ondemand::parser& parser,
                                              const simdjson::padded_string& body) {
  std::vector<ServerRecord> servers;
  auto document = parser.iterate(body);
  for (simdjson::ondemand::object object : document["servers"]) servers.push_back(BySimdjson(object));
  return servers;
}

bool Same(const ServerRecord& left, const ServerRecord& right) {
  return left.id == right.id && left.name == right.name && left.country == right.country &&
         left.city == right.city && left.latitude == right.latitude && left.longitude == right.longitude &&
         left.public_egress_ip == right.public_egress_ip && left.online == right.online &&
         left.last_seen_at == right.last_seen_at;
}

void CatalogueTelvor(benchmark::State& state) {
  const std::string body = Catalogue(state.range(0));
  for (auto _ : state) {
    std::vector<ServerRecord> servers;
    ReadServerRecords(body, servers);
    benchmark::DoNotOptimize(servers.data());
  }
  std::vector<ServerRecord> servers;
  simdjson::ondemand::parser parser;
  const std::vector<ServerRecord> expected = CatalogueBySimdjson(parser, simdjson::padded_string(body));
  if (!ReadServerRecords(body, servers) ||
      !std::equal(servers.begin(), servers.end(), expected.begin(), expected.end(), &Same)) {
    state.SkipWithError("the records differ from those of simdjson");
  }
  state.counters["bytes"] = static_cast<double>(body.size());
}

// The copy into a padded buffer, which simdjson needs, is made beforehand; its parser is used again.
void CatalogueSimdjson(benchmark::State& state) {
  const simdjson::padded_string body(Catalogue(state.range(0)));
  simdjson::ondemand::parser parser;
  for (auto _ : state) {
    benchmark::DoNotOptimize(CatalogueBySimdjson(parser, body).data());
  }
  state.counters["bytes"] = static_cast<double>(body.size());
}

BENCHMARK(CatalogueTelvor)->RangeMultiplier(10)->Range(10, 100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(CatalogueSimdjson)->RangeMultiplier(10)->Range(10, 100000)->Unit(benchmark::kMicrosecond);

// ---- The flat readers ----

struct Reader {
  const char* name;
  const char* member;  // as it stands in the body
  bool (*read)(std::string_view body, const char* key);
  const char* key;
};

const Reader kReaders[] = {
    {"JsonGetString", R"("refresh_token":"r-1")",
     [](std::string_view body, const char* key) {
       std::string value;
       return JsonGetString(body, key, value) && value == "r-1";
     },
     "refresh_token"},
    {"ExtractJsonUrlField", R"("checkout_url":"https:\/\/pay.test\/1")",
     [](std::string_view body, const char* key) {
       std::string value;
       return ExtractJsonUrlField(body, key, value) && value == "https://pay.test/1";
     },
     "checkout_url"},
    {"JsonGetInt64", R"("expires_at":1234567890)",
     [](std::string_view body, const char* key) {
       int64_t value = 0;
       return JsonGetInt64(body, key, value) && value == 1234567890;
     },
     "expires_at"},
    {"JsonGetBool", R"("allowed":true)",
     [](std::string_view body, const char* key) {
       uint8_t value = 0;
       return JsonGetBool(body, key, value) && value == 1;
     },
     "allowed"},
    {"JsonGetPersistentKeepalive", R"("persistent_keepalive":25)",
     [](std::string_view body, const char* /*key*/) {
       uint32_t value = 0;
       return JsonGetPersistentKeepalive(body, value) && value == 25;
     },
     "persistent_keepalive"},
    {"JsonGetStringArray", R"("allowed_ips":["0.0.0.0/0"])",
     [](std::string_view body, const char* key) {
       std::vector<std::string> values;
       return JsonGetStringArray(body, key, values) && values.size() == 1;
     },
     "allowed_ips"},
    {"ExtractJsonNumberField", R"("ratio":0.25)",
     [](std::string_view body, const char* key) {
       double value = 0;
       return ExtractJsonNumberField(body, key, value) && value == 0.25;
     },
     "ratio"},
};

constexpr char kAnotherMember[] = R"("another":1)";

void ReadKey(benchmark::State& state, const Reader& reader, const std::string& lastMember, bool found) {
  const std::string body = BodyWithLastKey(lastMember);
  for (auto _ : state) {
    if (reader.read(body, reader.key) != found) state.SkipWithError("not the right answer");
  }
}

void Memchr(benchmark::State& state) {
  const std::string body = BodyWithLastKey(kAnotherMember);
  for (auto _ : state) benchmark::DoNotOptimize(std::memchr(body.data(), '\x01', body.size()));
}

const bool kRegistered = [] {
  for (const Reader& reader : kReaders) {
    const std::string name = reader.name;
    benchmark::RegisterBenchmark(("LastKey/" + name).c_str(), ReadKey, reader, reader.member, true);
    benchmark::RegisterBenchmark(("AbsentKey/" + name).c_str(), ReadKey, reader, kAnotherMember, false);
  }
  return true;
}();
BENCHMARK(Memchr);

}  // namespace
