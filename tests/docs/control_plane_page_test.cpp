// docs/control-plane.md against what went to the control plane.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "tests/docs/page.h"
#include "tests/docs/scripted_day.h"
#include "tests/docs/source_texts.h"

namespace {

const Page& ControlPlanePage() {
  static const Page page = ReadPage("control-plane.md");
  return page;
}

std::string WithoutQuery(const std::string& request) {
  return request.substr(0, request.find('?'));
}

// "VERB path" of an example.
std::string RequestOf(const Example& example) {
  constexpr size_t kMark = 3;  // "-> "
  return WithoutQuery(example.text.front().substr(std::min(kMark, example.text.front().size())));
}

// What the page may say of the request, to be pasted.
std::string AllOf(const std::string& request) {
  std::set<std::string> texts;
  for (const HttpExchange& exchange : TheDay().http) {
    if (WithoutQuery(exchange.request) == request) texts.insert(ExampleText(exchange.text));
  }
  std::string all;
  for (const std::string& text : texts) all += text;
  return all;
}

TEST(ControlPlanePage, ShowsTheExchangesAsTheyWent) {
  const std::vector<HttpExchange>& all = TheDay().http;
  for (const Example& example : ControlPlanePage().examples) {
    const auto same = [&](const HttpExchange& exchange) { return exchange.text == example.text; };
    EXPECT_TRUE(std::any_of(all.begin(), all.end(), same))
        << "docs/control-plane.md has:\n"
        << ExampleText(example.text) << "it should have one of:\n"
        << AllOf(RequestOf(example));
  }
}

TEST(ControlPlanePage, ShowsEveryRequest) {
  std::set<std::string> shown;
  for (const Example& example : ControlPlanePage().examples) shown.insert(RequestOf(example));
  std::set<std::string> sent;
  for (const HttpExchange& exchange : TheDay().http) sent.insert(WithoutQuery(exchange.request));
  for (const std::string& request : sent) {
    EXPECT_TRUE(shown.contains(request)) << "docs/control-plane.md lacks one of:\n" << AllOf(request);
  }
}

// So that no request is forgotten by both, page and day.
TEST(ControlPlanePage, TheDaySendsToEveryPathOfTheSources) {
  for (const std::string& literal : SourceLiterals()) {
    if (!literal.starts_with("/v1/") || literal.find(' ') != std::string::npos) continue;
    if (literal.find(':') != std::string::npos) continue;  // the beginning of a log line
    const auto sent = [&](const HttpExchange& exchange) {
      return exchange.request.find(" " + literal) != std::string::npos;
    };
    EXPECT_TRUE(std::any_of(TheDay().http.begin(), TheDay().http.end(), sent)) << literal;
  }
}

}  // namespace
