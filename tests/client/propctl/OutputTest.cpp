#include <sstream>

#include <gmock/gmock.h>

#include "client/propctl/Output.h"

namespace propctl {
namespace {

class OutputTest : public ::testing::Test {
 protected:
  std::ostringstream out_;
  std::ostringstream errors_;
};

TEST_F(OutputTest, putsTabsBetweenColumns) {
  Output(out_, errors_, {}).table({"a", "b"}, {{{"1", "2"}}, {{"3", ""}, true}});

  EXPECT_EQ(out_.str(), "1\t2\n3\t\n");
}

TEST_F(OutputTest, alignsColumnsByCharactersNotBytes) {
  Output(out_, errors_, {.table = true}).table({"a", "b"}, {{{"\xc3\xbc\xc3\xbc", "1"}}, {{"xyz", "2"}}});

  EXPECT_EQ(out_.str(), "a    b\n\xc3\xbc\xc3\xbc   1\nxyz  2\n");
}

TEST_F(OutputTest, coloursHeadingsAndMarkedRows) {
  Output(out_, errors_, {.table = true, .colour = true}).table({"a"}, {{{"1"}}, {{"2"}, true}});

  EXPECT_EQ(out_.str(), "\033[1ma\033[0m\n1\n\033[33m2\033[0m\n");
}

TEST_F(OutputTest, makesNoRemarksWhenQuiet) {
  Output output(out_, errors_, {.quiet = true});

  output.remark("done");
  output.complain("refused");

  EXPECT_EQ(errors_.str(), "propctl: refused\n");
}

TEST_F(OutputTest, putsTheDeviceBeforeEachLine) {
  Output output(out_, errors_, {.device = "HQ-1"});

  output.line("5");
  output.complain("refused");

  EXPECT_EQ(out_.str(), "HQ-1: 5\n");
  EXPECT_EQ(errors_.str(), "propctl: HQ-1: refused\n");
}

TEST_F(OutputTest, wrapsJsonWithTheDevice) {
  Output(out_, errors_, {.json = true, .device = "HQ-1"}).json("x");

  EXPECT_EQ(out_.str(), "{\"device\":\"HQ-1\",\"result\":\"x\"}\n");
}

TEST_F(OutputTest, showsProgressOnATerminalAlone) {
  Output(out_, errors_, {}).progress("backup");
  EXPECT_EQ(errors_.str(), "");

  Output(out_, errors_, {.progress = true}).progress("backup");
  EXPECT_EQ(errors_.str(), "\r\033[Kbackup");
}

}  // namespace
}  // namespace propctl
