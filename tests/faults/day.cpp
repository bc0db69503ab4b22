#include "tests/faults/day.h"

namespace faults {
namespace {

// In so many virtual milliseconds everything that comes has come: a reply, or what was asked for.
constexpr uint32_t kPatience = 30'000;
constexpr uint32_t kFirstRefresh = 40'000;  // virtual milliseconds; it comes after 30,000
// "From then on" is over after so many calls: a worker that fails at once is started again at once, for ever,
// and no time passes.
constexpr uint64_t kCallsOfAnOutage = 20'000;
constexpr uint64_t kCallsOfAShortOutage = 2000;  // before going home
constexpr uint64_t kTenMinutes = 600'000;        // virtual milliseconds
constexpr uint32_t kFourTicks = 1000;            // virtual milliseconds of the worker's waits
constexpr size_t kBaselineFilters = 13;
constexpr int64_t kTwoHours = 7200;  // seconds: the token has expired then

constexpr char kUser[] = R"("email":"user@example.com","password":"secret")";
constexpr char kConfirmation[] =
    R"("email":"user@example.com","request_id":"r-1","code":"123456","new_password":"secret")";
const Lines kMorningAddresses = {"198.51.100.20", "198.51.100.21"};
const Lines kNoonAddresses = {"198.51.100.21", "198.51.100.30"};
const Lines kAllAddresses = {"198.51.100.20", "198.51.100.21", "198.51.100.30"};

sim::HttpResponse Answer(const std::string& body) {
  sim::HttpResponse response;
  response.body = body;
  return response;
}

void AnswerAccountCalls() {
  sim::UseControlPlane().overrides = {
      {"GET /v1/auth/registered", Answer(R"({"registered":true})")},
      {"POST /v1/auth/register", Answer("{}")},
      {"POST /v1/auth/password/reset/start", Answer(R"({"request_id":"r-1"})")},
      {"POST /v1/auth/password/reset/confirm", Answer("{}")},
      {"GET /v1/me/entitlement", Answer(R"({"payment_current":true,"status":"active"})")},
      {"GET /v1/me/quota", Answer(R"({"quota_current":true})")},
      {"POST /v1/billing/checkout", Answer(R"({"checkout_url":"https://pay.test/1"})")},
  };
}

bool IsConnected() {
  return gTunnelUp && gTunnelStatus == kStatusConnected;
}

bool HasNoTunnel() {
  return gTunnelStatus == kStatusDisconnected && !sim::ServiceInstalled(kTunnelService);
}

// One step of the day: the pipe's calls and the waits of it. Until the mischief is done everything must come.
class Hour {
 public:
  Hour(const char* name, Diary& diary) : name_(name), diary_(diary) {}

  void Ask(const std::string& method, const std::string& parameters, const std::string& wanted) {
    if (!sim::ProductRunning()) return Note(method, false);
    diary_.replies.push_back(sim::Ask(Request(method, parameters), kPatience).value_or(""));
    Note(method, diary_.replies.back().find(wanted) != std::string::npos);
  }

  void WaitFor(const char* what, const std::function<bool()>& condition, uint32_t milliseconds = kPatience) {
    sim::RunUntil([&condition] { return condition() || !sim::ProductRunning(); }, milliseconds);
    Note(what, sim::ProductRunning() && condition());
  }

  void WaitForConnected() { WaitFor("CONNECTED", &IsConnected); }

  void WaitForNoTunnel() { WaitFor("no tunnel", &HasNoTunnel); }

 private:
  void Note(const std::string& what, bool came) {
    if (!came && !diary_.hit) ADD_FAILURE() << "an undisturbed day misses " << name_ << ": " << what;
  }

  const char* name_;
  Diary& diary_;
};

constexpr char kNothingWrong[] = "\"error\":null";

bool ServiceRuns() {
  return !sim::StatusReports().empty() && sim::PipeInstances() > 0 &&
         sim::StatusReports().back().dwCurrentState == platform::kServiceRunning;
}

void Start(Hour& hour) {
  sim::StartProduct(true);
  hour.WaitFor("RUNNING", &ServiceRuns);
}

void OpenAccount(Hour& hour) {
  hour.Ask("GET /ui/is-registered", kUser, R"("registered":true)");
  hour.Ask("POST /ui/register", kUser, "AUTH_OK");
  hour.Ask("POST /ui/logout", "", "Logged out");
  hour.Ask("POST /ui/password-reset/start", kUser, R"("request_id":"r-1")");
  hour.Ask("POST /ui/password-reset/confirm", kConfirmation, "password reset complete");
}

void LogIn(Hour& hour) {
  hour.Ask("POST /ui/login", kUser, "AUTH_OK");
  hour.Ask("GET /ui/status", "", "AUTH_OK");
  hour.Ask("GET /ui/locations", "", "srv-b");
}

// Another tunnel of the same kind is up; it has to go.
void Connect(Hour& hour) {
  sim::InstallService({.name = L"WireGuardTunnel$other", .state = platform::kServiceRunning});
  hour.Ask("Connect", "", "true");
  hour.WaitForConnected();
  hour.Ask("GetState", "", "connected");
  hour.Ask("GET /ui/logs", R"("limit":3)", kNothingWrong);
}

// The policy's domain has moved when the first refresh is due.
void StayConnected(Hour& hour) {
  sim::SetHost(L"bypass.example", kNoonAddresses);
  hour.WaitFor(
      "a refresh", [] { return gRefreshIteration > 0; }, kFirstRefresh);
  hour.WaitFor("a new route", [] {
    const Lines routes = sim::HostRouteTexts();
    return !routes.empty() && routes.back().starts_with("198.51.100.30");
  });
}

void Subscribe(Hour& hour) {
  hour.Ask("GET /ui/entitlement", "", R"("ok":true)");
  sim::SetUnixTime(sim::UnixTime() + kTwoHours);
  hour.Ask("GET /ui/quota", "", R"("ok":true)");
  hour.Ask("POST /ui/billing/checkout", "", "pay.test");
  hour.Ask("GET /ui/account-page-url", "", "/account?access_token=");
}

void ChangeServer(Hour& hour) {
  hour.Ask("POST /ui/select-location", R"("server_id":"srv-b")", "true");
  hour.WaitForNoTunnel();
  hour.Ask("Connect", "", "true");
  hour.WaitForConnected();
}

void MissAHandshake(Hour& hour) {
  hour.Ask("Disconnect", "", "true");
  hour.WaitForNoTunnel();
  sim::RemoveFile(kPublicKeyFile);  // it is derived again
  sim::HandshakeAnswers(false);
  hour.Ask("Connect", "", "true");
  hour.WaitFor("a missed handshake", [] { return LastErrorText() == "HANDSHAKE_TIMEOUT"; });
  sim::HandshakeAnswers(true);
  hour.WaitForConnected();
}

// Somebody has left a callout under the system's provider.
void Disconnect(Hour& hour) {
  constexpr platform::Guid kCallout{1, 2, 3, {4}};
  sim::PutCallout(kCallout, &kProviderKey);
  hour.Ask("Disconnect", "", "true");
  hour.WaitForNoTunnel();
}

void LogOut(Hour& hour) {
  hour.Ask("POST /ui/logout", "", "Logged out");
}

constexpr struct {
  const char* name;
  void (*live)(Hour& hour);
} kHours[] = {
    {"start", &Start},           {"account", &OpenAccount},
    {"login", &LogIn},           {"connect", &Connect},
    {"stay", &StayConnected},    {"subscribe", &Subscribe},
    {"server", &ChangeServer},   {"missed handshake", &MissAHandshake},
    {"disconnect", &Disconnect}, {"logout", &LogOut},
};

void DoMischief(const Mischief& mischief, Diary& diary) {
  diary.hit = true;
  diary.logBefore = sim::LogBytes().size();
  diary.repliesBefore = diary.replies.size();
  if (mischief.kind == Mischief::Kind::kCrashAfter) sim::KillProcess();
  const bool once = mischief.kind == Mischief::Kind::kFailOnce;
  sim::Fail({.operation = mischief.operation, .code = mischief.code, .times = once ? 1 : UINT32_MAX});
  if (once) return;
  const uint64_t length = mischief.thenHome ? kCallsOfAShortOutage : kCallsOfAnOutage;
  sim::BeforeCall(length, [] { sim::ClearFaults(); });
}

// Ahead of whatever else watches that call.
void Plan(const Mischief& mischief, Diary& diary) {
  const bool after = mischief.kind == Mischief::Kind::kCrashAfter;
  sim::BeforeCall(mischief.call + (after ? 1 : 0), [&mischief, &diary] { DoMischief(mischief, diary); });
}

// Before every change of the file the text that is to become it is noted.
void NoteConfigurations(Diary& diary) {
  sim::Before(
      "MoveFileExW",
      [&diary] {
        diary.configurations.insert(sim::FileBytes(std::wstring(kTunnelConfigFile) + L".tmp").value_or(""));
        NoteConfigurations(diary);
      },
      "telvor.conf");
}

bool IsOf(const std::wstring& name, const wchar_t* kind) {
  return name.starts_with(std::wstring(L"TELVOR:ALLOW ") + kind);
}

// The names of the filters in force that belong to the baseline: all but pins and permits.
Lines BaselineNames() {
  Lines names;
  for (const std::wstring& name : sim::FilterNames()) {
    if (!IsOf(name, L"cp-pinned") && !IsOf(name, L"split-bypass")) names.push_back(sim::Narrow(name));
  }
  return names;
}

// No filter does anything but permit, and none is another's.
bool NoFilterBlocks() {
  for (const sim::EngineFilter& filter : sim::FiltersInForce()) {
    if (filter.filter.actionType != platform::kFwpActionPermit) return false;
    if (filter.filter.providerKey != kProviderKey || filter.filter.subLayerKey != kSubLayerKey) return false;
  }
  return true;
}

// A rollback takes what can be taken: when a filter cannot be deleted, the others go all the same.
bool RulesMayBeHalfThere(const Mischief& mischief) {
  return mischief.operation == "FwpmFilterDeleteByKey0";
}

void ExpectRulesThatMayBe(const Mischief& mischief) {
  EXPECT_TRUE(NoFilterBlocks());
  const size_t count = BaselineNames().size();
  EXPECT_TRUE(count == 0 || count == kBaselineFilters || RulesMayBeHalfThere(mischief))
      << count << " filters of the baseline";
}

void ExpectStateThatMayBe(const Mischief& mischief) {
  ExpectRulesThatMayBe(mischief);
  EXPECT_TRUE(gTunnelDesired == kDesiredDisconnected || gTunnelDesired == kDesiredConnected);
  EXPECT_TRUE(gTunnelStatus >= kStatusDisconnected && gTunnelStatus <= kStatusError);
  EXPECT_TRUE(!gTunnelUp || BaselineNames().size() == kBaselineFilters) << "CONNECTED without rules";
}

void WatchTheRules(const Mischief& mischief) {
  sim::Before("FwpmTransactionCommit0", [&mischief] {
    ExpectRulesThatMayBe(mischief);
    WatchTheRules(mischief);
  });
}

// A rollback consists of these alone.
bool RollbackMayFail(const Mischief& mischief) {
  for (const char* part :
       {"FwpmEngineOpen0", "FwpmTransaction", "FwpmFilterCreateEnumHandle0", "FwpmFilterEnum0",
        "FwpmFilterDeleteByKey0", "FwpmCallout", "FwpmSubLayerDelete", "FwpmProviderDelete"}) {
    if (mischief.operation.starts_with(part)) return true;
  }
  return false;
}

// The worker pauses before it tries again; what it gave up has been rolled back then.
void WatchThePauses(const Mischief& mischief, const std::string& pause) {
  sim::Before(
      "WaitForSingleObject",
      [&mischief, pause] {
        EXPECT_TRUE(FirewallIsOpen() || RollbackMayFail(mischief)) << "rules are left in a pause";
        WatchThePauses(mischief, pause);
      },
      pause);
}

size_t CountOf(const std::wstring& wanted) {
  const std::vector<std::wstring> names = sim::FilterNames();
  return static_cast<size_t>(std::count(names.begin(), names.end(), wanted));
}

// Everything of a connection to the addresses that bypass it.
void ExpectWholeConnection() {
  EXPECT_EQ(sim::ServiceState(kTunnelService), platform::kServiceRunning);
  EXPECT_EQ(BaselineNames().size(), kBaselineFilters);
  EXPECT_GE(CountOf(L"TELVOR:ALLOW cp-pinned v4:10.99.0.1"), 2u);
  const Lines routes = sim::HostRouteTexts();
  for (const char* address : {"198.51.100.7", "198.51.100.20", "198.51.100.21", "198.51.100.30"}) {
    EXPECT_EQ(CountOf(L"TELVOR:ALLOW split-bypass v4:" + sim::Widen(address)), 2u) << address;
    const std::string route = std::string(address) + "/32 via 192.168.1.1 if 7 metric 5";
    EXPECT_EQ(std::count(routes.begin(), routes.end(), route), 1) << address;
  }
}

}  // namespace

void LiveUntilEvening(const Mischief& mischief, Diary& diary) {
  AnswerAccountCalls();
  sim::SetHost(L"bypass.example", kMorningAddresses);
  if (mischief.kind == Mischief::Kind::kNone) {
    NoteConfigurations(diary);
  } else {
    Plan(mischief, diary);
  }
  WatchTheRules(mischief);
  for (const char* pause : {"milliseconds=1000", "milliseconds=2000"}) WatchThePauses(mischief, pause);
  for (const auto& step : kHours) {
    Hour hour(step.name, diary);
    step.live(hour);
    if (mischief.kind == Mischief::Kind::kCrashAfter && diary.hit) return;
    ExpectStateThatMayBe(mischief);
    if (mischief.thenHome && diary.hit) return;
  }
}

bool StopForTheNight(Diary& diary) {
  diary.replies.push_back(sim::Ask(Request("StopService"), kPatience).value_or(""));
  return WaitForEnd(kPatience);
}

void StartAgain() {
  sim::StartProduct(true);
  EXPECT_TRUE(sim::RunUntil(&ServiceRuns, kMinute));
}

void ExpectTheDayGoesOn(const Lines& routes) {
  sim::HandshakeAnswers(true);
  sim::SetHost(L"bypass.example", kAllAddresses);
  EXPECT_EQ(Ask("Disconnect"), kTrueReply);
  EXPECT_EQ(Login(), kLoginReply);
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  // A pass that was under way may connect first, to be torn down at its first tick.
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(sim::RunUntil(&IsConnected, kTenMinutes));
    sim::Run(kFourTicks);
  }
  EXPECT_NE(Ask("GET /ui/account-page-url").find("\"ok\":true"), std::string::npos);
  ExpectWholeConnection();
  EXPECT_EQ(Ask("Disconnect"), kTrueReply);
  EXPECT_TRUE(sim::RunUntil([] { return HasNoTunnel() && !gBypassRoutesInstalled; }, kTenMinutes));
  EXPECT_TRUE(FirewallIsOpen());
  EXPECT_EQ(sim::RouteTexts(), routes);
}

}  // namespace faults
