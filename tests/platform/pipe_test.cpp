// The pipe server on a real pipe: framing, limits, sixteen instances.
#include "ipc/pipe_server.h"

#include <memory>
#include <string>
#include <vector>

#include "engine/tunnel_state.h"
#include "ipc/methods.h"
#include "ipc/platform.h"
#include "platform/platform_fixture.h"

namespace {

constexpr char kNoRequest[] =
    "{\"jsonrpc\":\"2.0\",\"id\":0,\"result\":null,\"error\":{\"message\":\"IPC: no request\"}}\n";
constexpr uint32_t kPipeBusy = 231;
constexpr size_t kBeyondTheLimit = 200192;  // the first multiple of the read chunk above 200000

std::string MissingMethod(int id) {
  return "{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(id) +
         ",\"result\":null,\"error\":{\"message\":\"IPC: missing method\"}}\n";
}

// Stands in the table in place of GetState: the reply is the request line as it arrived.
bool ReplyWithTheLine(const PipeRequest& request, std::string& reply) {
  reply = request.line;
  return true;
}

const std::string kEchoStart = "{\"method\":\"GetState\",";

// The pipe server runs.
class PipeTest : public PlatformTest {
 protected:
  PipeTest() {
    PlugPipeMethod("GetState", ReplyWithTheLine);
    gStopEvent = platform::CreateEventW(true, false);
    gIpcThread = platform::CreateThread(IpcThread, nullptr);
  }

  ~PipeTest() override {
    platform::SetEvent(gStopEvent);
    EXPECT_TRUE(IpcThreadEnds());
    platform::CloseHandle(gIpcThread);
    platform::CloseHandle(gStopEvent);
    gIpcThread = nullptr;
    gStopEvent = nullptr;
    PlugPipeMethod("GetState", nullptr);
  }

  // The thread sees the stop only when a client comes, if it waits for one.
  static bool IpcThreadEnds() {
    for (int i = 0; i < 500; ++i) {
      PipeConnection client(0);
      if (client.Connected()) client.ReadToEnd();
      if (platform::WaitForSingleObject(gIpcThread, 20) == platform::kWaitObject0) return true;
    }
    return false;
  }

  static std::string Ask(const std::string& bytes) {
    PipeConnection client;
    client.Write(bytes);
    return client.ReadToEnd();
  }
};

}  // namespace

TEST_F(PipeTest, AnswersOneLineAndEndsTheConnection) {
  EXPECT_EQ(Ask("{\"id\":5}\n"), MissingMethod(5));
}

TEST_F(PipeTest, AnEmptyLineIsARequest) {
  EXPECT_EQ(Ask("\n"), MissingMethod(0));
}

TEST_F(PipeTest, ASecondLineIsDropped) {
  EXPECT_EQ(Ask("{\"id\":1}\n{\"id\":2}\n"), MissingMethod(1));
  EXPECT_EQ(Ask("{\"id\":3}\n"), MissingMethod(3));
}

TEST_F(PipeTest, ALineInManySmallWritesIsPutTogether) {
  PipeConnection client;
  for (const char c : kEchoStart + "\"n\":1}\n") client.Write(std::string(1, c));
  EXPECT_EQ(client.ReadToEnd(), kEchoStart + "\"n\":1}\n");
}

TEST_F(PipeTest, CarriageReturnsVanishInsideTheLineToo) {
  EXPECT_EQ(Ask("{\"meth\rod\":\"Get\r\rState\",\"n\":1}\r\n"), kEchoStart + "\"n\":1}\n");
}

TEST_F(PipeTest, BytesPassAsTheyAre) {
  const std::string bytes = kEchoStart + "\xFF\x80\x01\xC3\xA9}";
  EXPECT_EQ(Ask(bytes + "\n"), bytes + "\n");
}

TEST_F(PipeTest, ALineOf200000BytesGoesOnBeingRead) {
  const std::string line = kEchoStart + std::string(200000 - kEchoStart.size(), 'x');
  EXPECT_EQ(Ask(line + "\n"), line + "\n");
}

TEST_F(PipeTest, ALineBeyondTheLimitGetsTheFixedReply) {
  EXPECT_EQ(Ask(std::string(kBeyondTheLimit, 'x')), kNoRequest);
  EXPECT_EQ(Ask("{\"id\":9}\n"), MissingMethod(9));
}

TEST_F(PipeTest, AClientThatLeavesWithoutALineHarmsNobody) {
  PipeConnection client;
  client.Write("{\"id\":1}");
  client.Close();
  PipeConnection().Close();
  EXPECT_EQ(Ask("{\"id\":2}\n"), MissingMethod(2));
}

TEST_F(PipeTest, SixteenClientsAreServedAtOnceAndASeventeenthFindsThemBusy) {
  std::vector<std::unique_ptr<PipeConnection>> clients;
  for (int i = 0; i < 16; ++i) {
    clients.push_back(std::make_unique<PipeConnection>());
    ASSERT_TRUE(clients.back()->Connected()) << i;
  }
  PipeConnection refused(0);
  EXPECT_FALSE(refused.Connected());
  EXPECT_EQ(refused.Error(), kPipeBusy);

  for (int i = 15; i >= 0; --i) {
    clients[static_cast<size_t>(i)]->Write("{\"id\":" + std::to_string(i) + "}\n");
    EXPECT_EQ(clients[static_cast<size_t>(i)]->ReadToEnd(), MissingMethod(i));
  }
  EXPECT_EQ(Ask("{\"id\":17}\n"), MissingMethod(17));
}

TEST_F(PipeTest, ASilentClientGetsTheFixedReplyAtTheStop) {
  PipeConnection client;
  client.Write("{\"id\":1");
  platform::SetEvent(gStopEvent);
  client.Write("2");
  EXPECT_EQ(client.ReadToEnd(), kNoRequest);
}

TEST_F(PlatformTest, NoServerNoPipe) {
  PipeConnection client(0);
  EXPECT_FALSE(client.Connected());
  EXPECT_EQ(client.Error(), 2u);
}
