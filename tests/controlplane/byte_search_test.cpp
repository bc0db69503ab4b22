#include "controlplane/byte_search.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

constexpr size_t kNone = std::string_view::npos;
const std::string kKey = "\"expires_at\"";

// Bytes that stand in the key, so that parts of it come up everywhere.
std::string Rubbish(size_t size, std::mt19937& random) {
  std::string text;
  for (size_t i = 0; i < size; ++i) text += "\"expirs_at:"[random() % 11];
  return text;
}

// Each search that the processor is able to run.
class FindText : public testing::TestWithParam<size_t> {
 protected:
  static size_t Find(std::string_view text, std::string_view pattern) {
    return TextSearches()[GetParam()](text, pattern);
  }
};

INSTANTIATE_TEST_SUITE_P(Searches, FindText, testing::Range(size_t{0}, TextSearches().size()));

TEST_P(FindText, FindsThePatternWhereverItStands) {
  // Longer than two steps of vectors, at every place and with every alignment of the text.
  const std::string filling(1000, 'x');
  for (size_t at = 0; at <= filling.size(); ++at) {
    const std::string text = filling.substr(0, at) + kKey + filling.substr(at);
    const std::string_view shifted = std::string_view(text).substr(at % 67 < at ? at % 67 : 0);
    ASSERT_EQ(Find(shifted, kKey), shifted.find(kKey)) << at;
  }
}

TEST_P(FindText, FindsAPatternWhoseRareBytesAreFarApart) {
  const std::string filling(1000, 'e');
  for (size_t between = 0; between < 200; ++between) {
    const std::string pattern = '#' + std::string(between, 'e') + '#';
    for (const size_t at : {0U, 1U, 63U, 319U, 640U, 1000U}) {
      const std::string text = filling.substr(0, at) + pattern + filling.substr(at);
      ASSERT_EQ(Find(text, pattern), at) << between;
    }
  }
}

TEST_P(FindText, GivesTheFirstOfSeveral) {
  const std::string filling(400, '"');
  const std::string text = filling + kKey + filling + kKey;
  EXPECT_EQ(Find(text, kKey), 400U);
  EXPECT_EQ(Find(std::string_view(text).substr(401), kKey), 411U);
}

TEST_P(FindText, DoesNotLookBehindTheEnd) {
  const std::string text = std::string(1000, ' ') + kKey;
  for (size_t size = 0; size <= text.size(); ++size) {
    const std::string_view cut = std::string_view(text).substr(0, size);
    ASSERT_EQ(Find(cut, kKey), size == text.size() ? 1000U : kNone) << size;
  }
}

TEST_P(FindText, AgreesWithTheLibrarys) {
  std::mt19937 random(1);
  for (int round = 0; round < 2000; ++round) {
    const std::string text = Rubbish(random() % 2500, random);
    const std::string pattern = Rubbish(2 + random() % 4, random);
    ASSERT_EQ(Find(text, pattern), std::string_view(text).find(pattern)) << pattern << " in " << text;
  }
}

TEST(Marks, HasABitForEachPlaceOfTheByte) {
  std::string text(ByteBlock::kSize, '.');
  EXPECT_EQ(Marks(LoadBlock(text.data()), '{'), 0U);
  for (const size_t at : {0U, 15U, 16U, 31U, 47U, 63U}) text[at] = '{';
  text[1] = '\xFB';
  EXPECT_EQ(Marks(LoadBlock(text.data()), '{'),
            1ULL | 1ULL << 15 | 1ULL << 16 | 1ULL << 31 | 1ULL << 47 | 1ULL << 63);
  EXPECT_EQ(Marks(LoadBlock(text.data()), '\xFB'), 2U);
}

}  // namespace
