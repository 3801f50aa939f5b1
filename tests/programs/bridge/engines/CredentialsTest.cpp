#include "programs/bridge/engines/Credentials.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "tavix/osa/Exception.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

using bridge::Credentials;
using bridge::IsLoopback;
using bridge::ReadCredentials;

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class CredentialsTest : public testing::Test {
 protected:
  std::string Write(const std::string& name, const std::string& text, mode_t mode = 0600) {
    const std::string file = _folder.Write(name, text);
    chmod(file.c_str(), mode);
    return file;
  }

  static std::string GetError(const std::string& file) {
    try {
      ReadCredentials(file);
    } catch (const osa::Exception& exception) {
      return exception.what();
    }
    return "none";
  }

  TemporaryDirectory _folder;
};

}  // namespace

TEST_F(CredentialsTest, AreReadLineByLine) {
  const std::string key = Write("key", "...");
  const Credentials credentials =
      ReadCredentials(Write("file", "# ours\n\nuser=camera-7\npassword= a=b \ncertificate=/c.pem\nkey=" + key + "\n"));
  EXPECT_EQ(credentials.user, "camera-7");
  EXPECT_EQ(credentials.password, " a=b ");
  EXPECT_EQ(credentials.certificate, "/c.pem");
  EXPECT_EQ(credentials.key, key);
}

TEST_F(CredentialsTest, AreNoneWithoutAFile) {
  EXPECT_EQ(ReadCredentials("").user, "");
}

TEST_F(CredentialsTest, AreReadFromAFileThatItsGroupMayRead) {
  EXPECT_EQ(ReadCredentials(Write("file", "user=camera-7\n", 0640)).user, "camera-7");
}

TEST_F(CredentialsTest, AreRefusedWhenOthersMayReadOrWriteThem) {
  for (const mode_t mode : {0604, 0602, 0644, 0666}) {
    const std::string file = Write("file", "password=secret\n", mode);
    EXPECT_THAT(GetError(file),
                AllOf(HasSubstr(file), HasSubstr("others may read or write it"), Not(HasSubstr("secret"))));
  }
}

TEST_F(CredentialsTest, AreRefusedWhenOthersMayReadTheKey) {
  const std::string key = Write("key", "...", 0644);
  EXPECT_THAT(GetError(Write("file", "key=" + key + "\n")), HasSubstr(key));
}

TEST_F(CredentialsTest, AreNeverPartOfAnError) {
  EXPECT_THAT(GetError(Write("file", "user=camera-7\npasword=secret\n")),
              AllOf(HasSubstr("line 2"), Not(HasSubstr("secret"))));
  EXPECT_THAT(GetError(Write("file", "secret")), AllOf(HasSubstr("line 1"), Not(HasSubstr("secret"))));
}

TEST_F(CredentialsTest, AreRefusedFromWhatIsNoFileOfTheirs) {
  EXPECT_THAT(GetError(_folder.Path("missing")), HasSubstr("No such file"));
  EXPECT_THAT(GetError(_folder.GetPath()), HasSubstr("no regular file"));
  EXPECT_THAT(GetError(Write("file", std::string(70000, '#'))), HasSubstr("64 KiB"));
}

TEST_F(CredentialsTest, KeepTheMemoryOutOfCoreDumps) {
  ReadCredentials(Write("file", "password=secret\n"));
  std::ifstream filter("/proc/self/coredump_filter");
  std::string parts;
  filter >> parts;
  EXPECT_EQ(parts, "00000000");
}

TEST(IsLoopback, KnowsTheDeviceItself) {
  for (const char* host : {"localhost", "127.0.0.1", "127.8.0.1", "::1"}) EXPECT_TRUE(IsLoopback(host)) << host;
  for (const char* host : {"", "localhost.example.com", "127.0.0.1.example.com", "128.0.0.1", "10.0.0.1", "::2"})
    EXPECT_FALSE(IsLoopback(host)) << host;
}

}  // namespace tavix::test
