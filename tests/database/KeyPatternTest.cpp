#include <chrono>
#include <random>
#include <regex.h>

#include "database/KeyPattern.h"

namespace propertyservice {
namespace {

using namespace std::string_literals;

bool matches(const std::string& pattern, const std::string& key) {
  const auto compiled = KeyPattern::compile(pattern);
  return compiled && compiled->matches(key);
}

bool compiles(const std::string& pattern) {
  return KeyPattern::compile(pattern).has_value();
}

std::string repeated(const std::string& unit, int times) {
  std::string text;
  for (int i = 0; i < times; ++i) {
    text += unit;
  }
  return text;
}

/// What the C library alone says of a pattern, and of keys under it.
class Library {
 public:
  explicit Library(std::string pattern) {
    if (const std::size_t wildcard = pattern.find('%'); wildcard != std::string::npos) {
      pattern.replace(wildcard, 1, ".*");
    }
    compiled_ = regcomp(&expression_, ("^" + pattern).c_str(), 0) == 0;
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library() {
    if (compiled_) {
      regfree(&expression_);
    }
  }

  bool compiled() const { return compiled_; }
  bool matches(const std::string& key) const {
    return regexec(&expression_, key.c_str(), 0, nullptr, 0) == 0;
  }

 private:
  regex_t expression_{};
  bool compiled_;
};

void expectTheLibrarysAnswers(const std::string& pattern, const std::vector<std::string>& keys) {
  const Library library(pattern);
  const auto compiled = KeyPattern::compile(pattern);
  ASSERT_EQ(compiled.has_value(), library.compiled()) << "pattern: " << pattern;
  if (compiled) {
    for (const std::string& key : keys) {
      EXPECT_EQ(compiled->matches(key), library.matches(key)) << "pattern: " << pattern << " key: " << key;
    }
  }
}

TEST(KeyPattern, takesThePercentSignForAnyCharacters) {
  EXPECT_TRUE(matches("Web.%", "Web.Port"));
  EXPECT_TRUE(matches("Web.%", "Web."));
  EXPECT_FALSE(matches("Web.%", "Audio.Port"));
}

TEST(KeyPattern, takesASecondPercentSignForItself) {
  EXPECT_TRUE(matches("Web.%.%", "Web.a.%"));
  EXPECT_FALSE(matches("Web.%.%", "Web.a.b"));
}

TEST(KeyPattern, isAnchoredAtTheStartOnly) {
  EXPECT_TRUE(matches("%Web", "My.Web.Port"));
  EXPECT_TRUE(matches("Web", "Web.Port"));
  EXPECT_FALSE(matches("Web", "My.Web"));
}

TEST(KeyPattern, takesADotForAnyByte) {
  EXPECT_TRUE(matches("Web.%", "WebXPort"));
  EXPECT_TRUE(matches("Web.%", "Web\xFFPort"));
  EXPECT_FALSE(matches("Web.%", "Web"));
}

TEST(KeyPattern, readsAKeyUpToItsNul) {
  EXPECT_FALSE(matches("a.%", "a\0b"s));
  EXPECT_TRUE(matches("a%", "a\0b"s));
  EXPECT_FALSE(matches("a%b$", "a\0b"s));
}

TEST(KeyPattern, takesTheOperatorsOfExtendedExpressionsForThemselves) {
  for (const std::string literal : {"a+%", "a?%", "(a)%", "a{2}%", "a|b%"}) {
    EXPECT_TRUE(matches(literal, literal)) << literal;
    EXPECT_FALSE(matches(literal, "aa")) << literal;
  }
}

TEST(KeyPattern, takesAStarAtTheStartForItself) {
  EXPECT_TRUE(matches("*a%", "*ab"));
  EXPECT_FALSE(matches("*a%", "ab"));
}

TEST(KeyPattern, turnsAnEscapedPercentSignIntoAnyNumberOfDots) {
  EXPECT_TRUE(matches("a\\%b", "a...b"));
  EXPECT_TRUE(matches("a\\%b", "ab"));
  EXPECT_FALSE(matches("a\\%b", "axb"));
}

TEST(KeyPattern, lacksTheCharacterBeforeAStarWhereTheKeyDoes) {
  EXPECT_TRUE(matches("Webs*%", "Web.Port"));
  EXPECT_TRUE(matches("Webs*.P%", "Webss.Port"));
  EXPECT_FALSE(matches("Webs*.P%", "Wess.Port"));
}

TEST(KeyPattern, doesNotCompileWhatTheLibraryDoesNot) {
  for (const std::string pattern : {"a**", "%*", "[", "[%", "a\\", "%\\"}) {
    EXPECT_FALSE(compiles(pattern)) << pattern;
  }
}

TEST(KeyPattern, givesTheLibrarysAnswersForPatternsThatAreOdd) {
  const std::vector<std::string> keys = {"",  "%", "%%", "*",   "x",  "x$", "x$y",
                                         "a", "b", "ab", "axb", "^a", "[a]"};

  for (const std::string pattern :
       {"",   "%",   "%%",  "*",     "x$",    "x$%",   "[ab]%", "a**", "%*",   "[",    "a\\",
        "^a", "^*a", "a^b", "[^a]%", "a\\.%", "\\\\%", ".",     ".*",  "a.*b", "a.*b%"}) {
    expectTheLibrarysAnswers(pattern, keys);
  }
}

TEST(KeyPattern, givesTheLibrarysAnswersForRandomPatterns) {
  std::mt19937 random(20240607);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same patterns in every run
  const auto text = [&](std::string_view alphabet, std::size_t longest) {
    std::string result(random() % (longest + 1), ' ');
    for (char& byte : result) {
      byte = alphabet[random() % alphabet.size()];
    }
    return result;
  };

  for (int i = 0; i < 20'000; ++i) {
    std::vector<std::string> keys;
    for (int k = 0; k < 12; ++k) {
      keys.push_back(text("ac.%*", 6));
    }
    expectTheLibrarysAnswers(text("ac..*[]^$\\%-", 7), keys);
  }
}

TEST(KeyPattern, refusesGroupsIntervalsBackReferencesAndGnuOperators) {
  for (const char operation : "(){}|+?<>`'wWsSbB123456789"s) {
    EXPECT_FALSE(compiles("a\\"s + operation)) << operation;
    EXPECT_FALSE(compiles("a\\"s + operation + "%")) << operation;
  }
  EXPECT_FALSE(compiles("\\(a\\)%"));
  EXPECT_FALSE(compiles("a\\{1,2\\}%"));
}

TEST(KeyPattern, takesTheSameCharactersBehindAnEscapedBackslashForThemselves) {
  EXPECT_TRUE(matches("a\\\\(%", "a\\("));
  EXPECT_FALSE(compiles("a\\\\\\(%"));
}

TEST(KeyPattern, refusesPatternsOver256Bytes) {
  EXPECT_TRUE(compiles(std::string(256, 'a')));
  EXPECT_FALSE(compiles(std::string(257, 'a')));
}

TEST(KeyPattern, refusesANul) {
  EXPECT_FALSE(compiles("a\0b%"s));
}

TEST(KeyPattern, refusesWhatStallsOrEndsTheProcessInTheLibrary) {
  const std::vector<std::string> hostile = {
      "\\(.*\\)*\\1",
      repeated("\\(.*\\)", 9) + "\\1\\2\\3\\4\\5\\6\\7\\8\\9x",
      "a\\{,9999\\}",
      "\\(a\\{1,255\\}\\)\\{1,255\\}",
      "a" + repeated("\\+", 22),
      repeated("\\(\\)*", 16),
      repeated("\\b", 60),
      repeated("\\(", 12'451),
      repeated("a*", 20'000),
      std::string(65'535, '$'),
  };

  for (const std::string& pattern : hostile) {
    EXPECT_FALSE(compiles(pattern)) << pattern.substr(0, 80);
  }
}

TEST(KeyPattern, takesNothingThatIsDearToMatch) {
  const std::string key(64, 'a');
  const auto start = std::chrono::steady_clock::now();

  for (const std::string& pattern : {repeated("a*", 128), repeated(".*a", 85), repeated("[^b]*", 51)}) {
    const auto compiled = KeyPattern::compile(pattern);
    ASSERT_TRUE(compiled) << pattern;
    for (int i = 0; i < 4096; ++i) {
      compiled->matches(key);
    }
  }

  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

}  // namespace
}  // namespace propertyservice
