#include "programs/server/persistence/StartLook.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "programs/server/persistence/StartReads.h"
#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/support/MemoryFiles.h"

namespace tavix::test {

using daemon::LookAtUserSettings;
using daemon::UserSettingsRefused;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr char kForeign[] = "root:x:0:0:root:/root:/bin/bash\n";
constexpr char kFirstLine[] =
    "# User settings, kept by tavix-settings-server. Stop it before you edit them; keep this line and the last.\n";

class StartLook : public testing::Test {
 protected:
  // Empty: it is not.
  std::string WhyRefused() {
    try {
      LookAtUserSettings(_files, kUserFile, "--user-settings 'user.ini'");
      return "";
    } catch (const UserSettingsRefused& refused) {
      return refused.what();
    }
  }

  MemoryFiles _files;
};

}  // namespace

TEST_F(StartLook, FileThatWasNeverOursIsRefusedAndNothingIsTouched) {
  _files.Put(kUserFile, kForeign);
  EXPECT_EQ(WhyRefused(),
            "Failed to use --user-settings 'user.ini': it is not a file of user settings (user.ini:1: expected "
            "\"[group]\" or \"key=value\", found \"root:x:0:0:root:/root:/bin/bash\"), and it is left as it is");
  EXPECT_EQ(_files.CountOperations(), 0u);
}

// A line of ours may stand behind the first that is no settings text.
TEST_F(StartLook, ErrorOfAFileNamesTheLineAndALaterLineOfOursCounts) {
  const std::string text = "[A]\nx=1\n\ngarbage\n[B]\nmore\n";
  _files.Put(kUserFile, text);
  EXPECT_THAT(WhyRefused(), HasSubstr("(user.ini:4: expected \"[group]\" or \"key=value\", found \"garbage\")"));
  _files.Put(kUserFile, text + "# End of user settings: ");
  EXPECT_EQ(WhyRefused(), "");
}

TEST_F(StartLook, AbsentFileMayBeMade) {
  EXPECT_EQ(WhyRefused(), "");
}

TEST_F(StartLook, SettingsTextMayBeUsedWhoeverWroteIt) {
  _files.Put(kUserFile, "[A]\nx=1\n");
  EXPECT_EQ(WhyRefused(), "");
}

TEST_F(StartLook, WhatDamageLeavesOfOursIsOurs) {
  for (const std::string& bytes :
       {std::string(), std::string(5000, '\0'), kFirstLine + std::string("\x01\x02garbage\n"),
        "garbage\n# End of user settings: gen" + std::string(20, '\0')}) {
    _files.Put(kUserFile, bytes);
    EXPECT_EQ(WhyRefused(), "") << bytes;
  }
}

// The daemon's own program holds both lines, too.
TEST_F(StartLook, LineInTheMidstOfAnotherIsNotOurs) {
  _files.Put(kUserFile, "x" + std::string(kFirstLine) + "x# End of user settings: \n");
  EXPECT_THAT(WhyRefused(), StartsWith("Failed to use --user-settings 'user.ini': it is not a file of user settings"));
}

TEST_F(StartLook, AnyFileOfOursBesideItMakesItOurs) {
  const std::pair<const char*, std::string> proofs[] = {
      {"user.ini.bak", "[A]\nx=1\n"},
      {"user.ini.bak", std::string(100, '\0')},
      {"user.ini.new", kFirstLine},
      {"user.ini.bak.new", ""},
      {"user.ini.journal", "# tavix-settings journal 1, follows"},
      {"user.ini.journal.new", ""},
      {"user.ini.bad-20260101T000000Z", "anything"},
      {"user.ini.journal.bad-20260101T000000Z", "anything"},
  };
  for (const auto& [path, bytes] : proofs) {
    _files.Put(kUserFile, kForeign);
    _files.Put(path, bytes);
    EXPECT_EQ(WhyRefused(), "") << path;
    _files.Remove(path);
  }
}

TEST_F(StartLook, FilesOfOthersBesideItProveNothing) {
  _files.Put(kUserFile, kForeign);
  for (const char* path : {"user.ini.bak", "user.ini.new", "user.ini.journal", "user.ini.lock", "user.ini.bad-day",
                           "user.ini.old", "user.ini2"})
    _files.Put(path, kForeign);
  EXPECT_THAT(WhyRefused(), HasSubstr("it is left as it is"));
}

TEST_F(StartLook, FileThatCanNotBeReadIsRefusedButForTheDisksSake) {
  _files.Put(kUserFile, "[A]\nx=1\n");
  _files.FailReads(kUserFile, EIO, 4);
  EXPECT_EQ(WhyRefused(), "");
  _files.FailReads(kUserFile, EACCES, 4);
  EXPECT_EQ(WhyRefused(), "Failed to read --user-settings 'user.ini': Permission denied");
  _files.FailReads(kUserFile, ELOOP, 4);
  EXPECT_EQ(WhyRefused(), "Failed to read --user-settings 'user.ini': Too many levels of symbolic links");
}

}  // namespace tavix::test
