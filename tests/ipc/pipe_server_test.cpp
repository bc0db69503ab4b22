// The accept loop and the life of one connection.
#include "ipc/pipe_server.h"

#include <gtest/gtest.h>

#include <memory>

#include "ipc/methods.h"
#include "sim/pipes.h"
#include "tests/ipc/ipc_fixture.h"

namespace {

using namespace ipc_test;
using sim::PipeClient;

const std::string kNoRequest = ErrorText("IPC: no request", 0) + "\n";
const std::string kMissingMethod = ErrorText("IPC: missing method", 0) + "\n";

// The lines that reached dispatch as GetState, which answers with their lengths.
Lines gServed;
bool ServeMethod(const PipeRequest& request, std::string& reply) {
  gServed.push_back(request.line);
  reply = "length " + std::to_string(request.line.size());
  return true;
}

const std::string kRequest = R"({"method":"GetState"})";  // 21 bytes
const std::string kServed = "length 21\n";

// A machine on which the pipe server runs.
struct ServerMachine {
  explicit ServerMachine(bool start = true) {
    gServed.clear();
    PlugPipeMethod("GetState", ServeMethod);
    gStopEvent = platform::CreateEventW(true, false);
    if (start) Start();
  }
  // The stop event stays to a server that still runs.
  ~ServerMachine() {
    sim::Run(100);
    if (ended || !started) platform::CloseHandle(gStopEvent);
  }
  void Start() {
    started = true;
    sim::StartThread("ipc", [this] {
      result = IpcThread(nullptr);
      ended = true;
    });
  }

  sim::Machine machine;
  bool started = false;
  bool ended = false;
  uint32_t result = 99;
};

std::string Send(const std::string& bytes) {
  PipeClient client;
  client.Write(bytes);
  return client.ReadToEnd().value_or("nothing");
}

Lines Operations(const Lines& wanted) {
  Lines calls;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    for (const std::string& name : wanted) {
      if (entry.operation == name) calls.push_back(name);
    }
  }
  return calls;
}

// ---- The instance ----

TEST(IpcThread, OffersThePipeWithItsFixedParameters) {
  ServerMachine machine;
  EXPECT_EQ(Send(kRequest + "\n"), kServed);
  const platform::NamedPipeParameters* parameters = sim::LastPipeParameters();
  ASSERT_NE(parameters, nullptr);
  EXPECT_EQ(parameters->openMode, 3u);
  EXPECT_EQ(parameters->pipeMode, 0u);
  EXPECT_EQ(parameters->maxInstances, 16u);
  EXPECT_EQ(parameters->outBufferSize, 65536u);
  EXPECT_EQ(parameters->inBufferSize, 65536u);
  EXPECT_EQ(parameters->defaultTimeout, 0u);
  EXPECT_NE(parameters->securityDescriptor, nullptr);
  EXPECT_EQ(std::wstring(kPipeName), L"\\\\.\\pipe\\telvor");
  EXPECT_EQ(sim::LastSecurityDescriptorText(), L"D:(A;;GA;;;SY)(A;;GA;;;BA)(A;;GRGW;;;AU)");
}

TEST(IpcThread, BuildsItsDescriptorOnceForAllInstances) {
  ServerMachine machine;
  for (int n = 0; n < 3; ++n) EXPECT_EQ(Send(kRequest + "\n"), kServed);
  EXPECT_EQ(sim::CountCalls("ConvertStringSecurityDescriptorToSecurityDescriptorW"), 1u);
  EXPECT_GE(sim::CountCalls("CreateNamedPipeW"), 3u);
  EXPECT_EQ(sim::CountCalls("LocalFree"), 0u);
}

TEST(IpcThread, LogsNothingAboutConnections) {
  ServerMachine machine;
  EXPECT_EQ(Send(kRequest + "\n"), kServed);
  {
    PipeClient quits;
    quits.Write("half a li");
  }
  EXPECT_EQ(Send("\n"), kMissingMethod);
  EXPECT_EQ(sim::LogLines(), Lines{});
}

// ---- Framing ----

TEST(IpcClientThread, ServesTheFirstLineOnly) {
  ServerMachine machine;
  EXPECT_EQ(Send(kRequest + "\n" + kRequest + "\n"), kServed);
  EXPECT_EQ(gServed, Lines{kRequest});
}

TEST(IpcClientThread, TakesALineFeedAsAnEmptyRequest) {
  ServerMachine machine;
  EXPECT_EQ(Send("\n"), kMissingMethod);
}

TEST(IpcClientThread, PutsManySmallWritesTogether) {
  ServerMachine machine;
  PipeClient client;
  for (const char byte : kRequest + "\n") {
    client.Write(std::string(1, byte));
    sim::Run(10);
  }
  EXPECT_EQ(client.ReadToEnd(), kServed);
  EXPECT_EQ(gServed, Lines{kRequest});
}

TEST(IpcClientThread, DropsCarriageReturnsInsideTheLine) {
  ServerMachine machine;
  EXPECT_EQ(Send("{\"method\":\"Get\rState\"}\r\n"), kServed);
  EXPECT_EQ(gServed, Lines{kRequest});
}

TEST(IpcClientThread, ReadsInChunksOf512) {
  ServerMachine machine;
  EXPECT_EQ(Send(kRequest + std::string(1003, ' ') + "\n"), "length 1024\n");
  EXPECT_EQ(sim::CountCalls("ReadFile"), sim::CountCalls("ReadFile", "=512"));
  EXPECT_EQ(sim::CountCalls("ReadFile"), 3u);
}

TEST(IpcClientThread, GivesALineBeyondTheLimitUp) {
  ServerMachine machine;
  // 391 chunks are 200192 bytes; what comes behind them is not read any more.
  EXPECT_EQ(Send(std::string(size_t{391} * 512, 'x') + kRequest + "\n"), kNoRequest);
  EXPECT_EQ(sim::CountCalls("ReadFile"), 391u);
}

TEST(IpcClientThread, AcceptsALineThatPassesTheLimitInItsLastChunk) {
  ServerMachine machine;
  const std::string line = kRequest + std::string(391 * 512 - 22, ' ');
  EXPECT_EQ(Send(line + "\n"), "length 200191\n");
  EXPECT_EQ(gServed, Lines{line});
}

TEST(IpcClientThread, LosesItsReplyToAClientThatHasGone) {
  ServerMachine machine;
  {
    PipeClient client;
    client.Write("no line feed");
  }
  EXPECT_TRUE(sim::RunUntil([] { return sim::CountCalls("DisconnectNamedPipe") == 1; }, 1000));
  EXPECT_EQ(sim::CountCalls("WriteFile", "IPC: no request"), 1u);
  EXPECT_EQ(Send(kRequest + "\n"), kServed);
}

TEST(IpcClientThread, WritesALargeReplyInOneCallAndWaitsForTheReader) {
  ServerMachine machine;
  PlugPipeMethod("GetState", [](const PipeRequest&, std::string& reply) {
    reply.assign(300000, 'y');
    return true;
  });
  PipeClient client;
  client.Write(kRequest + "\n");
  sim::Run(5000);
  EXPECT_EQ(sim::CountCalls("WriteFile"), 1u);
  EXPECT_EQ(sim::CountCalls("DisconnectNamedPipe"), 0u);
  EXPECT_EQ(client.ReadToEnd(), std::string(300000, 'y') + "\n");
}

TEST(IpcClientThread, EndsItsInstanceWhateverFailed) {
  for (const std::string failing : {"", "ReadFile", "WriteFile", "FlushFileBuffers", "DisconnectNamedPipe"}) {
    SCOPED_TRACE(failing);
    ServerMachine machine;
    if (!failing.empty()) sim::Fail({.operation = failing, .code = 109});
    PipeClient client;
    client.Write(kRequest + "\n");
    sim::Run(100);
    client.ReadToEnd(100);
    client.Close();
    sim::Run(100);
    EXPECT_EQ(Operations({"WriteFile", "FlushFileBuffers", "DisconnectNamedPipe"}),
              (Lines{"WriteFile", "FlushFileBuffers", "DisconnectNamedPipe"}));
    EXPECT_EQ(sim::PipeInstances(), 1u);  // the one that waits for the next client
    EXPECT_EQ(sim::LogLines(), Lines{});
  }
}

TEST(IpcClientThread, AnswersAReadThatFailsWithNoRequest) {
  ServerMachine machine;
  sim::Fail({.operation = "ReadFile", .code = 109});
  EXPECT_EQ(Send(kRequest + "\n"), kNoRequest);
  EXPECT_EQ(gServed, Lines{});
}

TEST(IpcClientThread, TakesAReadOfNoBytesAsTheEnd) {
  ServerMachine machine;
  sim::Shorten("ReadFile", 0);
  EXPECT_EQ(Send(kRequest + "\n"), kNoRequest);
  EXPECT_EQ(gServed, Lines{});
}

TEST(IpcClientThread, IsDetached) {
  ServerMachine machine;
  PipeClient silent;
  sim::Run(1000);
  EXPECT_EQ(sim::CountCalls("CreateThread"), 1u);
  EXPECT_EQ(sim::OpenHandles("thread"), 0u);
}

TEST(IpcClientThread, KeepsASilentClientForAsLongAsItStays) {
  ServerMachine machine;
  PipeClient silent;
  sim::Run(3'600'000);
  silent.Write(kRequest + "\n");
  EXPECT_EQ(silent.ReadToEnd(), kServed);
}

// ---- Sixteen instances ----

TEST(IpcThread, ServesSixteenAndTriesEvery250MillisecondsForTheNext) {
  ServerMachine machine;
  std::vector<std::unique_ptr<PipeClient>> silent;
  for (int n = 0; n < 16; ++n) {
    silent.push_back(std::make_unique<PipeClient>());
    EXPECT_TRUE(silent.back()->Connected());
  }
  sim::Run(1000);
  EXPECT_EQ(sim::PipeInstances(), 16u);
  PipeClient refused(0);
  EXPECT_FALSE(refused.Connected());
  EXPECT_EQ(refused.Error(), 231u);

  sim::ClearTrace();
  sim::Run(1000);
  std::vector<uint64_t> tries;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    if (entry.operation == "CreateNamedPipeW") tries.push_back(entry.time);
  }
  ASSERT_EQ(tries.size(), 4u);
  for (size_t n = 1; n < tries.size(); ++n) EXPECT_EQ(tries[n] - tries[n - 1], 250u);

  silent[3]->Close();
  EXPECT_EQ(Send(kRequest + "\n"), kServed);
  EXPECT_EQ(sim::LogLines(), Lines{});
}

TEST(IpcThread, ServesClientsSideBySide) {
  ServerMachine machine;
  PipeClient first;
  PipeClient second;
  EXPECT_EQ(Send(kRequest + "\n"), kServed);
  second.Write(kRequest + "\n");
  EXPECT_EQ(second.ReadToEnd(), kServed);
  first.Write("\n");
  EXPECT_EQ(first.ReadToEnd(), kMissingMethod);
}

// ---- Failures of the accept loop ----

TEST(IpcThread, EndsWithoutItsDescriptor) {
  ServerMachine machine(false);
  sim::Fail({.operation = "ConvertStringSecurityDescriptorToSecurityDescriptorW", .code = 87});
  EXPECT_EQ(IpcThread(nullptr), 0u);
  EXPECT_EQ(sim::LogLines(), Lines{"ERROR: failed to build pipe security descriptor"});
  EXPECT_EQ(sim::CountCalls("CreateNamedPipeW"), 0u);
}

TEST(IpcThread, PausesSilentlyWhenAnInstanceCannotBeMade) {
  ServerMachine machine(false);
  sim::Fail({.operation = "CreateNamedPipeW", .code = 5, .times = 3});
  const uint64_t start = sim::Now();
  machine.Start();
  EXPECT_EQ(Send(kRequest + "\n"), kServed);
  EXPECT_EQ(sim::CountCalls("Sleep", "=250"), 3u);
  EXPECT_EQ(sim::CountCalls("Sleep"), 3u);
  EXPECT_GE(sim::Now() - start, 750u);
  EXPECT_EQ(sim::LogLines(), Lines{});
}

TEST(IpcThread, ClosesAnInstanceThatCannotBeConnected) {
  ServerMachine machine(false);
  sim::Fail({.operation = "ConnectNamedPipe", .code = 232, .times = 2});
  machine.Start();
  sim::Run(1000);
  EXPECT_EQ(Operations({"CreateNamedPipeW", "ConnectNamedPipe", "CloseHandle", "Sleep", "CreateThread"}),
            (Lines{"CreateNamedPipeW", "ConnectNamedPipe", "CloseHandle", "Sleep", "CreateNamedPipeW",
                   "ConnectNamedPipe", "CloseHandle", "Sleep", "CreateNamedPipeW", "ConnectNamedPipe"}));
  EXPECT_EQ(sim::CountCalls("Sleep", "=50"), 2u);
  EXPECT_EQ(sim::PipeInstances(), 1u);
  EXPECT_EQ(Send(kRequest + "\n"), kServed);
  EXPECT_EQ(sim::LogLines(), Lines{});
}

TEST(IpcThread, TakesAClientThatCameEarlyAsConnected) {
  ServerMachine machine;
  std::unique_ptr<PipeClient> client;
  sim::Run(10);
  EXPECT_EQ(Send(kRequest + "\n"), kServed);
  // The next instance's client comes between its making and ConnectNamedPipe.
  sim::ClearTrace();
  sim::Before("ConnectNamedPipe", [&client] { client = std::make_unique<PipeClient>(0); });
  EXPECT_EQ(Send(kRequest + "\n"), kServed);
  ASSERT_TRUE(client && client->Connected());
  client->Write(kRequest + "\n");
  EXPECT_EQ(client->ReadToEnd(), kServed);
  EXPECT_EQ(sim::CountCalls("Sleep"), 0u);
}

TEST(IpcThread, ServesTheClientItselfWhenNoThreadCanBeMade) {
  ServerMachine machine;
  sim::Fail({.operation = "CreateThread", .code = 8});
  PipeClient first;
  sim::Run(100);
  // While this client is silent, no further instance is offered.
  EXPECT_EQ(sim::PipeInstances(), 1u);
  PipeClient second(0);
  EXPECT_FALSE(second.Connected());
  first.Write(kRequest + "\n");
  EXPECT_EQ(first.ReadToEnd(), kServed);
  EXPECT_EQ(Send(kRequest + "\n"), kServed);
  EXPECT_EQ(sim::LogLines(), Lines{});
}

// ---- Stop ----

TEST(IpcThread, OffersNoPipeOnceStopIsSignalled) {
  ServerMachine machine(false);
  platform::SetEvent(gStopEvent);
  EXPECT_EQ(IpcThread(nullptr), 0u);
  EXPECT_EQ(sim::CountCalls("CreateNamedPipeW"), 0u);
}

TEST(IpcThread, TakesAWaitThatFailsAsStop) {
  sim::Machine machine;
  gStopEvent = nullptr;  // closed and cleared by the host at the end of its shutdown
  EXPECT_EQ(IpcThread(nullptr), 0u);
  EXPECT_EQ(sim::CountCalls("CreateNamedPipeW"), 0u);
}

TEST(IpcThread, TestsTheStopSignalWithoutWaitingAndNeverSetsIt) {
  ServerMachine machine;
  EXPECT_EQ(Send(kRequest + "\n"), kServed);
  EXPECT_EQ(sim::CountCalls("WaitForSingleObject"), sim::CountCalls("WaitForSingleObject", "=0"));
  EXPECT_GE(sim::CountCalls("WaitForSingleObject"), 2u);
  EXPECT_EQ(sim::CountCalls("SetEvent"), 0u);
}

TEST(IpcThread, SeesTheStopSignalOnlyWhenAClientComes) {
  ServerMachine machine;
  sim::Run(10);
  platform::SetEvent(gStopEvent);
  sim::Run(60000);
  EXPECT_FALSE(machine.ended);
  EXPECT_EQ(Send(kRequest + "\n"), kNoRequest);
  EXPECT_TRUE(sim::RunUntil([&machine] { return machine.ended; }, 1000));
  EXPECT_EQ(machine.result, 0u);
  EXPECT_EQ(sim::PipeInstances(), 0u);
}

TEST(IpcThread, SeesTheStopSignalBetweenItsTries) {
  ServerMachine machine(false);
  sim::Fail({.operation = "CreateNamedPipeW", .code = 5, .times = UINT32_MAX});
  machine.Start();
  sim::Run(1100);
  platform::SetEvent(gStopEvent);
  EXPECT_TRUE(sim::RunUntil([&machine] { return machine.ended; }, 250));
}

TEST(IpcClientThread, DoesNotReadOnceStopIsSignalled) {
  ServerMachine machine;
  sim::Run(10);
  platform::SetEvent(gStopEvent);
  EXPECT_EQ(Send(kRequest + "\n"), kNoRequest);
  EXPECT_EQ(sim::CountCalls("ReadFile"), 0u);
}

TEST(IpcClientThread, GivesAHalfLineUpWhenStopIsSignalled) {
  ServerMachine machine;
  PipeClient client;
  client.Write("half ");
  sim::Run(100);
  platform::SetEvent(gStopEvent);
  // It is seen behind the next chunk, not before.
  sim::Run(60000);
  EXPECT_EQ(sim::CountCalls("WriteFile"), 0u);
  client.Write("a line");
  EXPECT_EQ(client.ReadToEnd(), kNoRequest);
}

TEST(IpcClientThread, TakesALineThatIsCompleteThoughStopIsSignalled) {
  ServerMachine machine;
  PipeClient client;
  sim::Run(100);
  platform::SetEvent(gStopEvent);
  client.Write(kRequest + "\n");
  EXPECT_EQ(client.ReadToEnd(), kServed);
}

TEST(IpcClientThread, AnswersAStopRequestAfterTheServiceStopped) {
  ServerMachine machine;
  PlugPipeMethod("StopService", [](const PipeRequest& request, std::string& reply) {
    platform::SetEvent(gStopEvent);
    platform::Sleep(8000);
    reply = ResultText("true", request.id);
    return true;
  });
  EXPECT_EQ(Send("{\"id\":7,\"method\":\"StopService\"}\n"), ResultText("true") + "\n");
}

}  // namespace
