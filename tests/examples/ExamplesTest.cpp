#include "support/Device.h"

// The example as somebody else builds it: against the installed library, in a directory of his own.

namespace propertyservice::test {
namespace {

class Examples : public testing::Test {
 protected:
  Examples() {
    run({CMAKE_PROGRAM, "--install", BUILD_DIRECTORY, "--prefix", prefix_, "--component", "propclient"});
    device_.start();
  }

  const TemporaryDirectory directory_;
  const std::string prefix_ = directory_.path("installed");
  Device device_;
};

TEST_F(Examples, areBuiltWithCMakeAndRun) {
  const std::string build = directory_.path("build");
  run({CMAKE_PROGRAM, "-S", SOURCE_DIRECTORY "/examples", "-B", build, "-D", "CMAKE_PREFIX_PATH=" + prefix_,
       "-D", "CMAKE_CXX_COMPILER=" COMPILER});
  run({CMAKE_PROGRAM, "--build", build});

  EXPECT_EQ(run({build + "/volume"}), "was 5, set to 7: Ok\n");
}

TEST_F(Examples, areBuiltWithPkgConfigAndRun) {
  const std::string program = directory_.path("volume");
  run({"sh", "-c",
       "PKG_CONFIG_PATH=" + prefix_ +
           "/" LIBRARY_DIRECTORY "/pkgconfig && export PKG_CONFIG_PATH && " COMPILER
           " -std=c++20 -Wall -Wextra -Werror " SOURCE_DIRECTORY
           "/examples/volume.cpp $(pkg-config --cflags --libs propclient) -o " +
           program});

  EXPECT_EQ(run({program}), "was 5, set to 7: Ok\n");
}

TEST_F(Examples, sayThatThereIsNoBroker) {
  const std::string program = directory_.path("volume");
  run({"sh", "-c",
       COMPILER " -std=c++20 " SOURCE_DIRECTORY "/examples/volume.cpp $(PKG_CONFIG_PATH=" + prefix_ +
           "/" LIBRARY_DIRECTORY "/pkgconfig pkg-config --cflags --libs propclient) -o " + program});

  device_.broker().stop();

  EXPECT_EQ(run({"sh", "-c", program + " 2>&1; echo $?"}),
            "no connection to the broker at localhost:1883: Connection refused\n1\n");
}

}  // namespace
}  // namespace propertyservice::test
