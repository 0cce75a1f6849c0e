#include <ctime>
#include <malloc.h>
#include <random>
#include <regex.h>
#include <set>

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

/// The C library's own decision about a pattern, and about keys under it.
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
  std::vector<std::string> keys = {"",    "%",  "%%",  "*", "x",  "x$", "x$y", "a",   "b",  "ab",
                                   "axb", "^a", "[a]", "^", "^^", "^*", "*a",  "*^a", "\\", "\n"};
  for (int byte = 1; byte < 256; ++byte) {
    keys.push_back(std::string(1, static_cast<char>(byte)));
  }

  for (const std::string pattern :
       {"", "%", "%%", "*", "x$", "x$%", "[ab]%", "a**", "%*", "[", "a\\", "^a", "^*a", "a^b", "[^a]%",
        "a\\.%", "\\\\%", ".", ".*", "a.*b", "a.*b%",
        // anchors and stars
        "^", "^^", "^*", "^^a", "^^*", "^**", "*", "**", "***", "*a*", "a*", "a*$", "$", "$$", "$*", "$a",
        "a$*", "%$", "%^a", "%**", "**%", "*%*", "\\*", "\\**", "\\^a", "\\$", "a\\$$", "\\n", "\\0", "\\-",
        "\\[a]",
        // brackets
        "[]", "[]a", "[]a]", "[^]a]", "[]-a]", "[^]-a]*b", "[^", "[^]", "[a", "[a-", "[a-]", "[-a]", "[--a]",
        "[a--]", "[+--]", "[+---]", "[%---]", "[---]", "[---a]", "[a-c-e]", "[a-c-]", "[c-a]", "[a-a]",
        "[^^]", "[a^]", "[*]", "[.]", "[$]", "[\\]", "[\\]]", "[\\n]", "[[]", "[[a]", "[%]", "[a-%]",
        "[[.%.]]", "[\xff]", "[\x80-\xff]", "[^\x01-\x7f]", "[a-\xff]",
        // classes, equivalents and collating symbols
        "[[:alpha:]]", "[[:alnum:]]", "[[:blank:]]", "[[:cntrl:]]", "[[:digit:]]", "[[:graph:]]",
        "[[:lower:]]", "[[:print:]]", "[[:punct:]]", "[[:space:]]", "[[:upper:]]", "[[:xdigit:]]",
        "[^[:alnum:]]", "[[:alpha:]", "[[:alpha]]", "[[:nothing:]]", "[[::]]", "[:alpha:]", "[[:alpha:]-z]",
        "[[:alpha:]-]", "[a-[:alpha:]]", "[[:digit:][:upper:]x]*", "[[=a=]]", "[[=ab=]]", "[[==]]",
        "[[=a=]-c]", "[a-[=c=]]", "[[=]=]]", "[[.a.]]", "[[.a.]-c]", "[a-[.c.]]", "[[.-.]]", "[[.space.]]",
        "[[.].]]", "[[.a]", "[[.", "[[..]]", "[[...]]", "[[=", "[[:"}) {
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

/// 4096 different keys of 3 to 6 words.
std::vector<std::string> variedKeys() {
  constexpr std::string_view kWords[] = {"Audio",   "Ringer",  "Volume",  "Network", "Gateway",
                                         "Address", "Account", "Display", "Server",  "Backup",
                                         "Timeout", "Headset", "Forward", "Proxy"};
  std::mt19937 random(3);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same keys in every run
  std::set<std::string> keys;
  while (keys.size() < 4096) {
    std::string key;
    for (std::size_t words = 3 + random() % 4; words > 0; --words) {
      key += std::string(key.empty() ? "" : ".") + std::string(kWords[random() % std::size(kWords)]);
    }
    keys.insert(key.substr(0, 64));
  }
  return {keys.begin(), keys.end()};
}

double processorMs() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

TEST(KeyPattern, matchesDifferentKeysInLittleTimeAndWithoutMemory) {
  constexpr double kMostMs = 250;  // the library takes seconds for some of them
  const std::vector<std::string> keys = variedKeys();

  for (const std::string& pattern :
       {"%[a-m]" + repeated(".", 30) + "Q", "%[a-m]" + repeated("[^A]", 40) + "Q",
        "%" + repeated("[^A]*", 51), repeated("a*", 128), repeated(".*a", 85), "%" + repeated(".", 254) + "Q",
        "%" + std::string(254, 'e') + "$"}) {
    SCOPED_TRACE(pattern);
    const auto compiled = KeyPattern::compile(pattern);
    ASSERT_TRUE(compiled);
    const std::size_t memory = mallinfo2().uordblks;
    const double start = processorMs();

    for (const std::string& key : keys) {
      compiled->matches(key);
    }

    EXPECT_LT(processorMs() - start, kMostMs);
    EXPECT_EQ(mallinfo2().uordblks, memory);
  }
}

TEST(KeyPattern, givesTheLibrarysAnswersForLongPatterns) {
  const std::vector<std::string> keys = {"",
                                         std::string(63, 'a'),
                                         std::string(64, 'a'),
                                         std::string(65, 'a'),
                                         std::string(128, 'a'),
                                         std::string(256, 'a'),
                                         std::string(257, 'a')};

  for (const int units : {62, 63, 64, 65, 127, 128, 129, 191, 192, 255, 256}) {
    expectTheLibrarysAnswers(std::string(static_cast<std::size_t>(units), 'a'), keys);
    expectTheLibrarysAnswers(std::string(static_cast<std::size_t>(units) - 1, 'a') + "$", keys);
    expectTheLibrarysAnswers("%" + std::string(static_cast<std::size_t>(units) - 2, 'a') + "$", keys);
    expectTheLibrarysAnswers(repeated("a*", units / 2), keys);
    expectTheLibrarysAnswers(repeated("a*", units / 2 - 1) + "b$", keys);
    expectTheLibrarysAnswers(repeated("b*", units / 2 - 1) + "a$", keys);
    expectTheLibrarysAnswers("aa" + repeated("a*", units / 2 - 2) + "a$", keys);
  }
}

}  // namespace
}  // namespace propertyservice
