// The assembly of a request line from chunks, and the reply to it.
#include <gtest/gtest.h>

#include "ipc/methods.h"
#include "ipc/pipe_server.h"
#include "tests/support/sim_failures.h"

namespace {

constexpr size_t kLimit = 200000;
const std::string kNoRequest =
    "{\"jsonrpc\":\"2.0\",\"id\":0,\"result\":null,\"error\":{\"message\":\"IPC: no request\"}}\n";

TEST(TakeChunk, EndsAtTheFirstLineFeedAndDropsTheRest) {
  RequestLine line;
  EXPECT_TRUE(TakeChunk(line, "first "));
  EXPECT_FALSE(line.complete);
  EXPECT_FALSE(TakeChunk(line, "line\nsecond line\n"));
  EXPECT_TRUE(line.complete);
  EXPECT_EQ(line.text, "first line");
}

TEST(TakeChunk, DropsCarriageReturnsWhereverTheyStand) {
  RequestLine line;
  EXPECT_TRUE(TakeChunk(line, "\rGet\r\rSt"));
  EXPECT_TRUE(TakeChunk(line, "\r"));
  EXPECT_FALSE(TakeChunk(line, "ate\r\n"));
  EXPECT_EQ(line.text, "GetState");
}

TEST(TakeChunk, TakesEveryOtherByteAsItIs) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    if (byte != '\n' && byte != '\r') bytes += static_cast<char>(byte);
  }
  RequestLine line;
  EXPECT_FALSE(TakeChunk(line, bytes + "\n"));
  EXPECT_EQ(line.text, bytes);
}

TEST(TakeChunk, TakesAnEmptyLineAsALine) {
  RequestLine line;
  EXPECT_FALSE(TakeChunk(line, "\n{\"method\":\"GetState\"}\n"));
  EXPECT_TRUE(line.complete);
  EXPECT_EQ(line.text, "");
}

TEST(TakeChunk, GoesOnAtExactlyTheLimit) {
  RequestLine line;
  EXPECT_TRUE(TakeChunk(line, std::string(kLimit, 'x')));
  EXPECT_TRUE(TakeChunk(line, ""));
  EXPECT_FALSE(TakeChunk(line, "x"));
  EXPECT_FALSE(line.complete);
}

TEST(TakeChunk, CountsTheLineAndNotTheBytesRead) {
  RequestLine line;
  EXPECT_TRUE(TakeChunk(line, std::string(kLimit, 'x') + std::string(512, '\r')));
  EXPECT_FALSE(TakeChunk(line, "\n"));
  EXPECT_TRUE(line.complete);
}

TEST(TakeChunk, AcceptsALineThatPassesTheLimitInTheChunkOfItsLineFeed) {
  RequestLine line;
  EXPECT_TRUE(TakeChunk(line, std::string(kLimit, 'x')));
  EXPECT_FALSE(TakeChunk(line, std::string(511, 'x') + "\n"));
  EXPECT_TRUE(line.complete);
  EXPECT_EQ(line.text.size(), kLimit + 511);
}

TEST(ReplyTo, IsFixedForAnIncompleteLine) {
  sim::Machine machine;
  EXPECT_EQ(kNoRequest.size(), 76u + 1);
  EXPECT_EQ(ReplyTo(RequestLine{}), kNoRequest);
  EXPECT_EQ(ReplyTo(RequestLine{.text = "{\"id\":5,\"method\":\"GetState\"}", .complete = false}),
            kNoRequest);
}

TEST(ReplyTo, IsTheDispatchersWithALineFeed) {
  sim::Machine machine;
  EXPECT_EQ(
      ReplyTo(RequestLine{.text = "", .complete = true}),
      "{\"jsonrpc\":\"2.0\",\"id\":0,\"result\":null,\"error\":{\"message\":\"IPC: missing method\"}}\n");
  PlugPipeMethod("GetState", [](const PipeRequest& request, std::string& reply) {
    reply = "id " + std::to_string(request.id);
    return false;
  });
  EXPECT_EQ(ReplyTo(RequestLine{.text = "{\"id\":5,\"method\":\"GetState\"}", .complete = true}), "id 5\n");
}

}  // namespace
