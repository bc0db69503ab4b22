#include "stories.h"

#include <algorithm>

#include "tests/simulator/random.h"

namespace fleet {
namespace {

constexpr uint64_t kSecond = 1000;
constexpr uint64_t kMinute = 60 * kSecond;
constexpr uint64_t kHour = 60 * kMinute;
constexpr uint64_t kPoll = 2 * kSecond;
constexpr char kConnect[] = "Connect";
constexpr char kDisconnect[] = "Disconnect";

// The stratum of a client, from 0 to below 1: clients that follow one another lie far apart, and all together
// evenly.
double Stratum(uint32_t client, uint32_t clients, uint32_t stride) {
  return (static_cast<double>(uint64_t{client} * stride % clients) + 0.5) / clients;
}

uint64_t Share(double part, uint64_t whole) {
  return static_cast<uint64_t>(part * static_cast<double>(whole));
}

struct Writer {
  ClientPlan plan;
  simulator::Random random;

  uint64_t Between(uint64_t least, uint64_t most) {
    return least + simulator::DrawBelow(random, most - least);
  }
  bool OneIn(uint64_t count) { return simulator::DrawBelow(random, count) == 0; }
  void Ask(uint64_t time, const char* method, const char* parameters = "") {
    if (time < plan.end) plan.askings.push_back({time, method, parameters});
  }
  // The window comes up: the program shows the locations, and asks what is paid.
  void OpenWindow(uint64_t time) {
    Ask(time, "GET /ui/locations");
    Ask(time + 100, "GET /ui/entitlement");
    Ask(time + 200, "GET /ui/quota");
  }
  // That takes the tunnel down, and the program connects again.
  void ChangeServer(uint64_t time) {
    Ask(time, "POST /ui/select-location", R"("server_id":"srv-b")");
    Ask(time + kSecond, kConnect);
  }
  // The program starts, with its window.
  void SignIn(uint64_t time) {
    for (uint64_t poll = time; poll < plan.end; poll += kPoll) Ask(poll, "GET /ui/status");
    OpenWindow(time + kSecond / 2);
  }
  ClientPlan Finished() {
    std::stable_sort(plan.askings.begin(), plan.askings.end(),
                     [](const Asking& one, const Asking& other) { return one.time < other.time; });
    return plan;
  }
};

Writer Begin(uint32_t client, uint64_t end) {
  Writer writer;
  writer.plan.seed = client + 1;
  writer.plan.end = end;
  writer.random.state = simulator::Mix(end, client);
  return writer;
}

// Seven to ten hours at the computer. The program runs all the time; its window is looked at now and then.
// Most connect soon, for some hours, a third change the server meanwhile, and half connect once more.
ClientPlan OrdinaryDay(uint32_t client, uint32_t) {
  Writer writer = Begin(client, 0);
  writer.plan.end = writer.Between(7 * kHour, 10 * kHour);
  const uint64_t signedIn = writer.Between(20 * kSecond, kMinute);
  writer.SignIn(signedIn);
  uint64_t connect = signedIn + writer.Between(10 * kSecond, 2 * kMinute);
  if (writer.OneIn(3)) connect += writer.Between(kHour, 3 * kHour);
  const uint64_t disconnect = connect + writer.Between(2 * kHour, 5 * kHour);
  writer.Ask(connect, kConnect);
  if (writer.OneIn(3)) writer.ChangeServer(writer.Between(connect + kMinute, disconnect));
  writer.Ask(disconnect, kDisconnect);
  if (writer.OneIn(2)) writer.Ask(disconnect + writer.Between(kMinute, 2 * kHour), kConnect);
  const uint64_t looks = writer.Between(2, 7);
  for (uint64_t look = 0; look < looks; ++look) {
    writer.OpenWindow(writer.Between(10 * kMinute, writer.plan.end));
  }
  return writer.Finished();
}

// Everyone is signed in within a minute, and connects within another.
ClientPlan OfficeMorning(uint32_t client, uint32_t) {
  Writer writer = Begin(client, 150 * kMinute);
  const uint64_t signedIn = writer.Between(20 * kSecond, kMinute);
  writer.SignIn(signedIn);
  writer.Ask(signedIn + writer.Between(5 * kSecond, kMinute), kConnect);
  return writer.Finished();
}

// In twenty clients twelve are connected as the outage begins, five connect within it and keep trying, three
// do not connect. The age of the token is spread over its lifetime, the phase of the polls over their period.
ClientPlan ReturnOfControlPlane(uint32_t client, uint32_t clients) {
  constexpr uint32_t kAgeStride = 7;
  constexpr uint32_t kPollStride = 11;
  const uint64_t age = kMinute + Share(Stratum(client, clients, kAgeStride), 55 * kMinute);
  Writer writer = Begin(client, age + 3 * kHour);
  writer.plan.zero = age;
  writer.plan.outageBegins = age;
  writer.plan.outageEnds = age + kHour;
  const uint64_t signedIn = 20 * kSecond + Share(Stratum(client, clients, kPollStride), kPoll);
  writer.SignIn(signedIn);
  const uint32_t kind = client % 20;
  if (kind < 12) writer.Ask(signedIn + 5 * kSecond, kConnect);
  if (kind >= 12 && kind < 17) writer.Ask(age + writer.Between(5 * kMinute, 55 * kMinute), kConnect);
  return writer.Finished();
}

ClientPlan ReturnWithVariedLifetimes(uint32_t client, uint32_t clients) {
  ClientPlan plan = ReturnOfControlPlane(client, clients);
  plan.lifetimesVary = true;
  return plan;
}

}  // namespace

const std::vector<Story>& Stories() {
  static const std::vector<Story> kStories = {
      {"day", "an ordinary day of one client, from the moment at which its machine is switched on",
       &OrdinaryDay},
      {"office", "the first hours of a machine that is switched on as the office opens", &OfficeMorning},
      {"return", "a control plane that cannot be reached for an hour, from the moment at which that begins",
       &ReturnOfControlPlane},
      {"varied", "the same, with tokens whose lifetimes differ", &ReturnWithVariedLifetimes},
  };
  return kStories;
}

const Story* FindStory(const std::string& name) {
  const auto found = std::find_if(Stories().begin(), Stories().end(),
                                  [&name](const Story& story) { return story.name == name; });
  return found == Stories().end() ? nullptr : &*found;
}

}  // namespace fleet
