#include "database/StorableValue.h"

namespace propertyservice {
namespace {

std::string repeated(const std::string& text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) {
    all += text;
  }
  return all;
}

TEST(StorableValue, is256CharactersAtMost) {
  EXPECT_TRUE(isStorable(std::string(256, 'v')));
  EXPECT_FALSE(isStorable(std::string(257, 'v')));
}

TEST(StorableValue, countsCharactersAndNotBytes) {
  EXPECT_TRUE(isStorable(repeated("\xf0\x9f\x93\x9e", 256)));
  EXPECT_FALSE(isStorable(repeated("\xc3\xbc", 257)));
}

TEST(StorableValue, mayBeEmpty) {
  EXPECT_TRUE(isStorable(""));
}

TEST(StorableValue, hasNoNul) {
  EXPECT_FALSE(isStorable(std::string("a\0b", 3)));
  EXPECT_FALSE(isStorable(std::string("\0", 1)));
}

TEST(StorableValue, takesTheFirstAndLastCharacterOfEachLength) {
  for (const char* character : {"\x01", "\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf",
                                "\xee\x80\x80", "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_TRUE(isStorable(character)) << testing::PrintToString(character);
  }
}

TEST(StorableValue, isNoTextThatIsNotUtf8) {
  const std::pair<const char*, const char*> texts[] = {
      {"a continuation alone", "\x80"},
      {"a lead byte alone", "\xc3"},
      {"a lead byte before another character", "\xc3z"},
      {"a character that is cut off", "\xf0\x9f\x93"},
      {"an overlong NUL", "\xc0\x80"},
      {"an overlong two-byte character", "\xc1\xbf"},
      {"an overlong three-byte character", "\xe0\x9f\xbf"},
      {"an overlong four-byte character", "\xf0\x8f\xbf\xbf"},
      {"the first surrogate", "\xed\xa0\x80"},
      {"the last surrogate", "\xed\xbf\xbf"},
      {"a character beyond the last", "\xf4\x90\x80\x80"},
      {"a five-byte lead", "\xf8\x88\x80\x80\x80"},
      {"0xff", "\xff"},
  };
  for (const auto& [name, text] : texts) {
    EXPECT_FALSE(isStorable(text)) << name;
    EXPECT_FALSE(isStorable(std::string("good") + text)) << name;
  }
}

TEST(StorableValue, mayBeNumberBooleanOrNull) {
  EXPECT_TRUE(isStorable(5));
  EXPECT_TRUE(isStorable(1e308));
  EXPECT_TRUE(isStorable(true));
  EXPECT_TRUE(isStorable(Json::nullValue));
}

TEST(StorableValue, isNoArrayAndNoObject) {
  EXPECT_FALSE(isStorable(Json::arrayValue));
  EXPECT_FALSE(isStorable(Json::objectValue));
}

}  // namespace
}  // namespace propertyservice
