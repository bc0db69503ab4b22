// Every kept input of the fuzz targets, and some variations of each target's, without a fuzzer.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <vector>

#include "fuzz/target.h"

namespace {

namespace fs = std::filesystem;
using fuzz::Target;

const fs::path kCorpus = fs::path(TELVOR_SOURCE_ROOT) / "tests" / "fuzz" / "corpus";

struct Input {
  std::string name;
  std::string bytes;
};

std::vector<Input> Inputs(const Target& target) {
  std::vector<Input> inputs;
  for (const auto& entry : fs::directory_iterator(kCorpus / target.name)) {
    std::ifstream stream(entry.path(), std::ios::binary);
    inputs.push_back({entry.path().filename().string(), {std::istreambuf_iterator<char>(stream), {}}});
  }
  std::sort(inputs.begin(), inputs.end(), [](const Input& a, const Input& b) { return a.name < b.name; });
  return inputs;
}

// A byte changed, dropped, doubled or brought from another input.
std::string Varied(std::string bytes, const std::string& other, std::mt19937& random) {
  static constexpr char kTelling[] = "\"\\:{}[],-0 9\r\n\t/u.#\xC3\x80\x00";
  for (int edits = 1 + static_cast<int>(random() % 4); edits > 0; --edits) {
    const size_t at = random() % (bytes.size() + 1);
    const size_t from = random() % (other.size() + 1);
    switch (random() % 4) {
      case 0:
        bytes.insert(at, 1, kTelling[random() % sizeof kTelling]);
        break;
      case 1:
        bytes.erase(at, 1 + random() % 3);
        break;
      case 2:
        bytes.insert(at, bytes, at, 1 + random() % 20);
        break;
      default:
        bytes.insert(at, other, from, 1 + random() % 20);
    }
  }
  return bytes;
}

std::string Hexadecimal(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    const auto code = static_cast<unsigned char>(byte);
    text += {' ', "0123456789abcdef"[code / 16], "0123456789abcdef"[code % 16]};
  }
  return text;
}

// Empty, or what was broken.
std::string Outcome(const Target& target, const std::string& bytes) {
  try {
    target.run(bytes);
    return "";
  } catch (const fuzz::Broken& broken) {
    return broken.what();
  }
}

class FuzzCorpus : public testing::TestWithParam<Target> {};

TEST_P(FuzzCorpus, KeepsItsPromises) {
  const std::vector<Input> inputs = Inputs(GetParam());
  EXPECT_GE(inputs.size(), 4u);
  EXPECT_EQ(Outcome(GetParam(), ""), "");
  for (const Input& input : inputs) EXPECT_EQ(Outcome(GetParam(), input.bytes), "") << input.name;
}

TEST_P(FuzzCorpus, KeepsThemForVariationsToo) {
  constexpr size_t kVariations = 150;
  const std::vector<Input> inputs = Inputs(GetParam());
  ASSERT_FALSE(inputs.empty());
  std::mt19937 random(20260101);
  for (size_t i = 0; i < kVariations && !HasFailure(); ++i) {
    const Input& input = inputs[i % inputs.size()];
    const std::string bytes = Varied(input.bytes, inputs[random() % inputs.size()].bytes, random);
    EXPECT_EQ(Outcome(GetParam(), bytes), "") << input.name << " varied:" << Hexadecimal(bytes);
  }
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzCorpus,
                         testing::ValuesIn(fuzz::Targets().begin(), fuzz::Targets().end()),
                         [](const auto& chosen) { return std::string(chosen.param.name); });

TEST(FuzzCorpora, BelongToTargets) {
  std::set<std::string> folders, targets;
  for (const auto& entry : fs::directory_iterator(kCorpus)) folders.insert(entry.path().filename().string());
  for (const Target& target : fuzz::Targets()) targets.insert(target.name);
  EXPECT_EQ(folders, targets);
}

// A target that could not fail would be worth nothing.
TEST(FuzzTargets, SayWhatIsNotKept) {
  const Target liar{"liar", [](const std::string& bytes) { fuzz::Require(bytes.empty(), "no bytes"); }};
  EXPECT_EQ(Outcome(liar, ""), "");
  EXPECT_EQ(Outcome(liar, "x"), "no bytes");
}

}  // namespace
