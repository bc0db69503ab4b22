#include "clients.h"

#include <algorithm>
#include <memory>

#include "engine/tunnel_state.h"
#include "facts.h"
#include "invariants.h"
#include "replies.h"
#include "service/platform.h"
#include "sim/kernel.h"
#include "sim/pipes.h"

namespace simulator {
namespace {

constexpr uint32_t kPatience = 1'800'000;  // milliseconds until an answer is overdue

uint32_t gNextClient = 1;
size_t gAtWork = 0;

// One exchange on the list of those that are open, and the judging at its end.
class Open {
 public:
  // `faultsBefore`: FaultsApplied() before the pipe was opened.
  Open(const std::string& what, const std::string& request, uint32_t client, size_t faultsBefore) {
    exchange.client = client;
    exchange.what = what;
    exchange.request = request;
    exchange.complete = request.find('\n') != std::string::npos;
    exchange.statuses = 1U << (static_cast<uint32_t>(gTunnelStatus) & 31U);
    exchange.life = gFacts.life;
    exchange.begun = sim::Now();
    exchange.faultsBefore = faultsBefore;
    gFacts.exchanges.push_back(&exchange);
    if (Telling()) Tell("client " + std::to_string(client) + " sends " + what);
  }
  ~Open() {
    auto& open = gFacts.exchanges;
    open.erase(std::find(open.begin(), open.end(), &exchange));
  }
  Open(const Open&) = delete;
  Open& operator=(const Open&) = delete;

  void Answered(const std::optional<std::string>& reply) {
    exchange.answered = reply.has_value();
    exchange.reply = reply.value_or("");
    if (Telling())
      Tell("client " + std::to_string(exchange.client) + " gets " + exchange.reply.substr(0, 300));
    if (!reply) Violate(kAnswers, exchange.what + " has got no end in time\n" + sim::ThreadListing());
    gFacts.exchange = &exchange;
    Judge(Moment::kReply);
    gFacts.exchange = nullptr;
  }

  Exchange exchange;
};

void StartClient(const std::string& name, std::function<void(uint32_t)> behaviour) {
  const uint32_t number = gNextClient++;
  ++gAtWork;
  sim::StartClientThread(name, [number, task = std::move(behaviour)] {
    task(number);
    --gAtWork;
  });
}

void Converse(uint32_t client, const std::string& what, const std::string& request) {
  const size_t faults = sim::FaultsApplied();
  sim::PipeClient pipe;
  if (!pipe.Connected()) return;
  Open open(what, request, client, faults);
  pipe.Write(request, 10'000);
  open.Answered(pipe.ReadToEnd(kPatience));
}

// ---- Bad manners ----

void HangUpAtOnce(uint32_t) {
  sim::PipeClient pipe;
}

void HangUpWithinALine(uint32_t) {
  sim::PipeClient pipe;
  pipe.Write(R"({"jsonrpc":"2.0","id":1,"meth)");
}

void HangUpBeforeTheAnswer(uint32_t client) {
  sim::PipeClient pipe;
  pipe.Write(RequestLine(QuestionAt(client), client) + "\n");
}

void KeepSilent(uint32_t) {
  sim::PipeClient pipe;
  platform::Sleep(45'000);
}

void SendRubbish(uint32_t client) {
  Converse(client, "rubbish", "\x01\xff{]\"method\" : 12 \"id\":[]}\n");
}

void SendAnEmptyLine(uint32_t client) {
  Converse(client, "an empty line", "\n");
}

void SendTooMuch(uint32_t client) {
  Converse(client, "too long a line", std::string(210'000, 'x'));
}

void SendSlowly(uint32_t client) {
  const size_t faults = sim::FaultsApplied();
  sim::PipeClient pipe;
  if (!pipe.Connected()) return;
  const std::string request = RequestLine(QuestionAt(client), client) + "\n";
  Open open(QuestionAt(client).method, request, client, faults);
  for (size_t at = 0; at < request.size(); at += 7) {
    pipe.Write(request.substr(at, 7));
    platform::Sleep(40);
  }
  open.Answered(pipe.ReadToEnd(kPatience));
}

using Manner = void (*)(uint32_t client);
constexpr Manner kManners[kRudenessCount] = {&HangUpAtOnce, &HangUpWithinALine, &HangUpBeforeTheAnswer,
                                             &KeepSilent,   &SendRubbish,       &SendAnEmptyLine,
                                             &SendTooMuch,  &SendSlowly};

}  // namespace

void StartAsking(size_t question) {
  StartClient(QuestionAt(question).method, [question](uint32_t client) {
    Converse(client, QuestionAt(question).method, RequestLine(QuestionAt(question), client) + "\n");
  });
}

void StartBeingRude(size_t way) {
  StartClient("rude client", kManners[way % kRudenessCount]);
}

size_t ClientsAtWork() {
  return gAtWork;
}

void ForgetClients() {
  gNextClient = 1;
  gAtWork = 0;
}

std::string AskNow(const std::string& method) {
  for (size_t index = 0; index < kQuestionCount; ++index) {
    if (QuestionAt(index).method != method) continue;
    const uint32_t client = gNextClient++;
    const std::string request = RequestLine(QuestionAt(index), client) + "\n";
    const size_t faults = sim::FaultsApplied();
    sim::PipeClient pipe(60'000);
    if (!pipe.Connected()) return "";
    Open open(method, request, client, faults);
    pipe.Write(request);
    const std::optional<std::string> reply = pipe.ReadToEnd(kPatience);
    open.Answered(reply);
    return reply.value_or("");
  }
  return "";
}

}  // namespace simulator
