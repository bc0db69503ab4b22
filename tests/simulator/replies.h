// Which lines a request may get.
#pragma once

#include <string>

#include "facts.h"

namespace simulator {

// A request that clients send.
struct Question {
  const char* method;
  const char* parameters;  // the members of params
  const char* result;      // forms of the whole result, separated by line feeds; * stands for any text
};

inline constexpr size_t kQuestionCount = 26;
const Question& QuestionAt(size_t index);
std::string RequestLine(const Question& question, uint32_t id);

// What is wrong with a whole reply; empty if nothing.
std::string ReplyFault(const Exchange& exchange);

// `form` with * for any text.
bool FitsForm(const std::string& text, const std::string& form);

}  // namespace simulator
