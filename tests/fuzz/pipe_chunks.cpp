// Bytes of a client, however they are cut.
#include <vector>

#include "fuzz/target.h"
#include "ipc/pipe_server.h"

namespace fuzz {
namespace {

constexpr size_t kLineLimit = 200000;

// A byte that is no part of a line: behind it the next chunk begins.
constexpr char kCut = '\x1f';

// Stands for many bytes, so that small inputs reach the limit too.
constexpr char kMany = '\x1e';

std::vector<std::string> Chunks(const std::string& bytes) {
  std::vector<std::string> chunks;
  std::string chunk;
  for (const char byte : bytes) {
    if (byte == kMany && chunk.size() <= kLineLimit) chunk.append(40000, 'x');
    if (byte != kCut && byte != kMany) chunk += byte;
    if (byte != kCut || chunk.empty()) continue;
    chunks.push_back(chunk);
    chunk.clear();
  }
  if (!chunk.empty()) chunks.push_back(chunk);
  return chunks;
}

std::string WithoutReturns(const std::string& text) {
  std::string kept;
  size_t start = 0;
  for (size_t at = text.find('\r'); at != std::string::npos; at = text.find('\r', start)) {
    kept.append(text, start, at - start);
    start = at + 1;
  }
  return kept.append(text, start);
}

}  // namespace

void RunPipeChunks(const std::string& bytes) {
  RequestLine line;
  std::string arrived;
  bool reading = true;
  for (const std::string& chunk : Chunks(bytes)) {
    if (!reading) break;
    arrived += chunk;
    reading = TakeChunk(line, chunk);
    const size_t end = arrived.find('\n');
    Require(line.complete == (end != std::string::npos), "a line is complete with its line feed");
    Require(line.text == WithoutReturns(arrived.substr(0, end)), "the line is what came before it");
    Require(reading == (!line.complete && line.text.size() <= kLineLimit), "the reading ends in time");
  }
  const std::string reply = ReplyTo(line);
  Require(reply.find('\n') == reply.size() - 1, "the reply is one line");
  const bool asked = reply.find("IPC: no request") == std::string::npos;
  Require(asked == line.complete, "half a line is no request");
}

}  // namespace fuzz
