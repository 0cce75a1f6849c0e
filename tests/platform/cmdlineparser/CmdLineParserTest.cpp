#include "cmdlineparser/CmdLineParser.h"

namespace cmdlineparser {
namespace {

class CmdLineParserTest : public testing::Test {
 protected:
  CmdLineParserTest() {
    parser_.defineCmdLineOption("force", "Start anew", 0);
    parser_.defineCmdLineOption("drop-state", "Forget the state", 0);
  }

  int parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "program");
    return parser_.parse(static_cast<int>(arguments.size()), arguments.data());
  }

  CmdLineParser parser_;
};

TEST_F(CmdLineParserTest, acceptsNoArguments) {
  EXPECT_EQ(parse({}), 0);
  EXPECT_FALSE(parser_.checkOptionPassed("force"));
  EXPECT_FALSE(parser_.checkOptionPassed("drop-state"));
}

TEST_F(CmdLineParserTest, acceptsAnEmptyArgumentVector) {
  EXPECT_EQ(parser_.parse(0, nullptr), 0);
}

TEST_F(CmdLineParserTest, reportsOnlyTheOptionPassed) {
  EXPECT_EQ(parse({"--drop-state"}), 0);
  EXPECT_TRUE(parser_.checkOptionPassed("drop-state"));
  EXPECT_FALSE(parser_.checkOptionPassed("force"));
}

TEST_F(CmdLineParserTest, acceptsOptionsInAnyOrderAndTwice) {
  EXPECT_EQ(parse({"--drop-state", "--force", "--drop-state"}), 0);
  EXPECT_TRUE(parser_.checkOptionPassed("force"));
  EXPECT_TRUE(parser_.checkOptionPassed("drop-state"));
}

TEST_F(CmdLineParserTest, rejectsAnUnknownOptionByItsName) {
  const int error = parse({"--forced"});

  EXPECT_NE(error, 0);
  EXPECT_EQ(parser_.getErrorString(error), "Unknown option \"--forced\"");
}

TEST_F(CmdLineParserTest, rejectsAnAbbreviatedOption) {
  const int error = parse({"--drop"});

  EXPECT_EQ(parser_.getErrorString(error), "Unknown option \"--drop\"");
}

TEST_F(CmdLineParserTest, rejectsAShortOption) {
  const int error = parse({"-f"});

  EXPECT_EQ(parser_.getErrorString(error), "Unknown option \"-f\"");
}

TEST_F(CmdLineParserTest, rejectsAValueGivenToAFlag) {
  const int error = parse({"--force=yes"});

  EXPECT_EQ(parser_.getErrorString(error), "The option takes no value: \"--force=yes\"");
  EXPECT_FALSE(parser_.checkOptionPassed("force"));
}

TEST_F(CmdLineParserTest, rejectsAnUnknownOptionWithAValueAsUnknown) {
  const int error = parse({"--level=3"});

  EXPECT_EQ(parser_.getErrorString(error), "Unknown option \"--level=3\"");
}

TEST_F(CmdLineParserTest, rejectsStrayArguments) {
  for (const char* const stray : {"force", "", "-", "--"}) {
    const int error = parse({stray});

    EXPECT_EQ(parser_.getErrorString(error), "Unexpected argument \"" + std::string(stray) + '"');
  }
}

TEST_F(CmdLineParserTest, reportsTheFirstOfTwoErrors) {
  const int error = parse({"--force", "--one", "two"});

  EXPECT_EQ(parser_.getErrorString(error), "Unknown option \"--one\"");
}

TEST_F(CmdLineParserTest, hasNothingToSayWithoutAnError) {
  EXPECT_EQ(parser_.getErrorString(parse({"--force"})), "");
}

TEST_F(CmdLineParserTest, neverReportsAnOptionThatIsNotDefined) {
  EXPECT_FALSE(parser_.checkOptionPassed("verbose"));
}

TEST_F(CmdLineParserTest, listsTheOptionsInTheOrderOfTheirDefinition) {
  EXPECT_EQ(parser_.getHelp(),
            "  --force       Start anew\n"
            "  --drop-state  Forget the state\n");
}

}  // namespace
}  // namespace cmdlineparser
