// The clients of the pipe: threads of other processes that ask, talk rubbish, keep silent or hang up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace simulator {

// A client that sends the question's line and waits for its answer.
void StartAsking(size_t question);

inline constexpr size_t kRudenessCount = 8;
// A client that behaves badly in one of so many ways.
void StartBeingRude(size_t way);

size_t ClientsAtWork();
void ForgetClients();

// By the driver: the answer to a question; empty if there is none.
std::string AskNow(const std::string& method);

}  // namespace simulator
