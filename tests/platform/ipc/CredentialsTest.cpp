#include <sys/stat.h>

#include "ipc/Credentials.h"
#include "ipc/IPCException.h"
#include "support/TemporaryDirectory.h"

namespace ipc {
namespace {

class CredentialsFile : public testing::Test {
 protected:
  std::string write(const std::string& content, mode_t mode = 0600) {
    const std::string path = directory_.write("credentials", content);
    chmod(path.c_str(), mode);
    return path;
  }

  const propertyservice::test::TemporaryDirectory directory_;
};

TEST_F(CredentialsFile, givesUserAndPassword) {
  const auto credentials = readCredentials(write("panel\nse cret\n"));

  ASSERT_TRUE(credentials.has_value());
  EXPECT_EQ(credentials->user, "panel");
  EXPECT_EQ(credentials->password, "se cret");
}

TEST_F(CredentialsFile, thatIsMissingMeansNoAuthentication) {
  EXPECT_FALSE(readCredentials(directory_.path("nothing")).has_value());
}

TEST_F(CredentialsFile, thatOthersMayReadIsRefused) {
  for (const mode_t mode : {0640U, 0620U, 0610U, 0604U, 0602U, 0601U}) {
    EXPECT_THROW(readCredentials(write("panel\nsecret\n", mode)), IPCException) << mode;
  }
}

TEST_F(CredentialsFile, thatNamesNoUserIsRefused) {
  EXPECT_THROW(readCredentials(write("")), IPCException);
  EXPECT_THROW(readCredentials(write("\nsecret\n")), IPCException);
}

TEST_F(CredentialsFile, thatIsNoFileIsRefused) {
  chmod(directory_.path().c_str(), 0700);
  try {
    readCredentials(directory_.path());
    FAIL();
  } catch (const IPCException& exception) {
    EXPECT_THAT(exception.what(), testing::HasSubstr("must be a file"));
  }
}

TEST_F(CredentialsFile, thatCannotBeLookedForIsNotTakenForMissing) {
  EXPECT_THROW(readCredentials(write("panel\nsecret\n") + "/below"), IPCException);
}

}  // namespace
}  // namespace ipc
