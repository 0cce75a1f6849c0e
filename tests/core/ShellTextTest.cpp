#include <cstdio>
#include <random>

#include "core/ShellText.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice {
namespace {

using test::TemporaryDirectory;

std::string echoCommand(const std::string& text) {
  return "echo \"DatabaseVersion:" + escapeForEcho(text) + "\"\n";
}

std::string runScript(const TemporaryDirectory& directory, const std::string& script) {
  const std::string path = directory.write("script.sh", script);
  std::FILE* const shell = popen(("cd " + directory.path() + " && /bin/sh " + path + " 2>&1").c_str(), "r");
  std::string output;
  char buffer[4096];
  for (std::size_t size; (size = std::fread(buffer, 1, sizeof buffer, shell)) > 0;) {
    output.append(buffer, size);
  }
  EXPECT_EQ(pclose(shell), 0);
  return output;
}

TEST(ShellText, leavesAnOrdinaryVersionAsItIs) {
  EXPECT_EQ(escapeForEcho("17"), "17");
  EXPECT_EQ(escapeForEcho("1.2.3-rc4 (build 5)"), "1.2.3-rc4 (build 5)");
}

TEST(ShellText, turnsABackslashIntoFour) {
  EXPECT_EQ(escapeForEcho(R"(a\b)"), R"(a\\\\b)");
}

TEST(ShellText, putsABackslashBeforeWhatTheShellActsOn) {
  EXPECT_EQ(escapeForEcho("$`\""), R"(\$\`\")");
}

TEST(ShellText, isCutAtALineBreak) {
  EXPECT_EQ(escapeForEcho("17\nA;forged"), "17");
}

TEST(ShellText, isCutAtANul) {
  EXPECT_EQ(escapeForEcho(std::string("17\0x", 4)), "17");
}

TEST(ShellText, runsNothing) {
  const TemporaryDirectory directory;
  const std::vector<std::string> texts = {
      "$(touch ran)", "`touch ran`", "\";touch ran;\"", "\" > ran \"", "\\\";touch ran;\\\"", "${x:=1}",
  };
  std::string script;
  std::string expected;
  for (const std::string& text : texts) {
    script += echoCommand(text);
    expected += "DatabaseVersion:" + text + "\n";
  }

  EXPECT_EQ(runScript(directory, script), expected);
  EXPECT_FALSE(std::filesystem::exists(directory.path("ran")));
}

TEST(ShellText, isPrintedAsItIsByTheShell) {
  const TemporaryDirectory directory;
  std::mt19937 random(20240501);  // NOLINT(cert-msc51-cpp): the same texts in every run
  const std::string specials = R"(\\\\$`"'nct0123;&|<>(){}*?!~#% )";
  std::uniform_int_distribution<int> length(0, 24);
  std::uniform_int_distribution<int> byte(1, 255);
  std::uniform_int_distribution<std::size_t> special(0, specials.size() - 1);
  std::string script;
  std::string expected;
  for (int i = 0; i < 5000; ++i) {
    std::string text;
    for (int left = length(random); left > 0; --left) {
      text += byte(random) < 64 ? static_cast<char>(byte(random)) : specials[special(random)];
    }
    script += echoCommand(text);
    expected += "DatabaseVersion:" + text.substr(0, text.find('\n')) + "\n";
  }

  EXPECT_EQ(runScript(directory, script), expected);
}

}  // namespace
}  // namespace propertyservice
