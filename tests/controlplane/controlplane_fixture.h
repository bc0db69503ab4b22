// What the tests of the control-plane client share: scripted answers of the endpoint, a stored session, and
// looks at what was sent and done.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "engine/tunnel_state.h"
#include "service/data_files.h"
#include "sim/files.h"
#include "sim/http.h"
#include "sim/kernel.h"

inline constexpr wchar_t kBase[] = L"https://plane.test:9443";

// The time stamp of every log line of a test in which less than a second passes.
inline constexpr char kStamp[] = "[2026-01-01 00:00:00] ";

using Lines = std::vector<std::string>;

inline sim::HttpResponse Answer(uint32_t status, const std::string& body = "") {
  sim::HttpResponse response;
  response.status = status;
  response.body = body;
  return response;
}

// No answer at all: the request cannot be sent.
inline sim::HttpResponse NoAnswer() {
  sim::HttpResponse response;
  response.failSend = 12029;
  return response;
}

// An answer whose body breaks off behind `body`.
inline sim::HttpResponse BrokenAnswer(uint32_t status, const std::string& body) {
  sim::HttpResponse response = Answer(status, body + "the rest");
  response.chunks = {static_cast<uint32_t>(body.size())};
  response.failReadAfter = static_cast<uint32_t>(body.size());
  return response;
}

inline void AnswerAlways(const sim::HttpResponse& response) {
  sim::SetHttpHandler([response](const sim::HttpRequest&) { return response; });
}

// One answer a request; a request beyond the last fails the test.
inline void AnswerInTurn(const std::vector<sim::HttpResponse>& answers) {
  const auto left = std::make_shared<std::deque<sim::HttpResponse>>(answers.begin(), answers.end());
  sim::SetHttpHandler([left](const sim::HttpRequest& request) {
    if (left->empty()) {
      ADD_FAILURE() << "unexpected request: " << request.verb << " " << request.path8;
      return NoAnswer();
    }
    const sim::HttpResponse answer = left->front();
    left->pop_front();
    return answer;
  });
}

// "VERB path" of each request, in order.
inline Lines Sent() {
  Lines sent;
  for (const sim::HttpRequest& request : sim::HttpRequests())
    sent.push_back(request.verb + " " + request.path8);
  return sent;
}

inline Lines SentBodies() {
  Lines bodies;
  for (const sim::HttpRequest& request : sim::HttpRequests()) bodies.push_back(request.body);
  return bodies;
}

inline Lines SentBearers() {
  Lines bearers;
  for (const sim::HttpRequest& request : sim::HttpRequests()) bearers.push_back(request.bearer);
  return bearers;
}

// The traced operations whose names contain `part`, in order.
inline Lines Operations(const std::string& part) {
  Lines names;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    if (entry.operation.find(part) != std::string::npos) names.emplace_back(entry.operation);
  }
  return names;
}

// Takes each of the shared locks. One that this thread still held would stop it for good, and the machine
// reports that.
inline void TakeEveryLock() {
  for (platform::Mutex* mutex : {&gSessionMutex, &gLastErrorMutex, &gUiLock, &gBypassMutex}) {
    const std::lock_guard<platform::Mutex> lock(*mutex);
  }
}

// TakeEveryLock just before the next call of each operation; one that is named twice is looked at twice.
// Gives the number of looks so far.
inline std::shared_ptr<const size_t> LookForLocksBefore(const Lines& operations) {
  const auto looks = std::make_shared<size_t>(0);
  for (const std::string& operation : operations) {
    sim::Before(operation, [looks] {
      TakeEveryLock();
      ++*looks;
    });
  }
  return looks;
}

// How often the file was opened to be written.
inline size_t WritesOf(const std::wstring& path) {
  size_t writes = 0;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    const bool opens = entry.operation == "CreateFileW";
    const bool isThisFile = entry.arguments.find('"' + sim::Narrow(path) + '"') != std::string::npos;
    if (opens && isThisFile && entry.arguments.find("access=0x40000000") != std::string::npos) ++writes;
  }
  return writes;
}

// session.dat as a login would have left it.
inline void StoreSession(const std::string& accessToken, int64_t secondsLeft,
                         const std::string& refreshToken = "refresh-1") {
  const std::string expiry = std::to_string(sim::UnixTime() + secondsLeft);
  sim::PutFile(kSessionFile, sim::Seal("{\"access_token\":\"" + accessToken + "\",\"refresh_token\":\"" +
                                       refreshToken + "\",\"expires_at\":" + expiry + "}"));
}

// What session.dat says; empty without a readable one.
inline std::string StoredSession() {
  return sim::Unseal(sim::FileBytes(kSessionFile).value_or("")).value_or("");
}
