#include "programs/bridge/state/StateFile.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "tavix/osa/Exception.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using tavix::bridge::StateFile;
using tavix::bridge::StateKind;
using tavix::bridge::StateRecord;
using tavix::core::IniFile;
using tavix::test::TemporaryDirectory;

IniFile Value(const std::string& text) {
  IniFile value;
  value.SetValue("g", "k", text);
  return value;
}

std::map<std::string, std::string> All(StateFile& file, StateKind kind = StateKind::kAgreed) {
  std::map<std::string, std::string> values;
  file.Load(kind, [&values](const std::string& key, const IniFile& value) { values[key] = value.GetValue("g", "k"); });
  return values;
}

struct StateFileTest : testing::Test {
  TemporaryDirectory directory;
  const std::string path = directory.Path("state.db");
  const std::string allBytes = std::string("\0\n=[]\xFF", 6);
};

TEST_F(StateFileTest, KeepsRecordsOverARestart) {
  {
    StateFile file(path);
    file.Commit({{StateKind::kAgreed, "a", Value("1")}, {StateKind::kAgreed, allBytes, Value(allBytes)}});
    file.Commit({{StateKind::kAgreed, "a", Value("2")}, {StateKind::kIntent, "a", Value("other")}});
  }
  StateFile file(path);
  EXPECT_EQ(All(file), (std::map<std::string, std::string>{{"a", "2"}, {allBytes, allBytes}}));
  EXPECT_EQ(All(file, StateKind::kIntent), (std::map<std::string, std::string>{{"a", "other"}}));
  EXPECT_EQ(file.GetDamage(), "");
}

TEST_F(StateFileTest, RemovesRecords) {
  StateFile file(path);
  file.Commit({{StateKind::kAgreed, "a", Value("1")}, {StateKind::kAgreed, "b", Value("1")}});
  file.Commit({{StateKind::kAgreed, "a", std::nullopt}, {StateKind::kAgreed, "none", std::nullopt}});
  EXPECT_EQ(All(file), (std::map<std::string, std::string>{{"b", "1"}}));
}

TEST_F(StateFileTest, IsForItsUserAlone) {
  StateFile file(path);
  file.Commit({{StateKind::kAgreed, "a", Value("1")}});
  for (const char* ending : {"", "-wal", "-shm"}) {
    struct stat status {};
    ASSERT_EQ(stat((path + ending).c_str(), &status), 0) << ending;
    EXPECT_EQ(status.st_mode & 0777U, 0600U) << ending;
  }
}

TEST_F(StateFileTest, PutsAsideWhatIsNoDatabase) {
  directory.Write("state.db", std::string(5000, 'x'));
  StateFile file(path);
  EXPECT_EQ(file.GetDamage(), "file is not a database");
  EXPECT_EQ(directory.Read("state.db.damaged"), std::string(5000, 'x'));
  file.Commit({{StateKind::kAgreed, "a", Value("1")}});
  EXPECT_EQ(All(file).size(), 1u);
}

TEST_F(StateFileTest, PutsADamagedDatabaseAside) {
  {
    StateFile file(path);
    std::vector<StateRecord> records;
    for (int i = 0; i < 500; ++i)
      records.push_back({StateKind::kAgreed, std::to_string(i), Value(std::string(100, 'v'))});
    file.Commit(records);
  }
  std::string bytes = directory.Read("state.db");
  ASSERT_GT(bytes.size(), 20'000u);
  bytes.replace(9'000, 8'000, 8'000, '\x5A');
  directory.Write("state.db", bytes);
  StateFile file(path);
  EXPECT_NE(file.GetDamage(), "");
  EXPECT_TRUE(All(file).empty());
  EXPECT_TRUE(directory.Has("state.db.damaged"));
}

TEST_F(StateFileTest, KeepsAllOfACommitOrNothing) {
  StateFile file(path);
  file.Commit({{StateKind::kAgreed, "a", Value("1")}});
  // As on a full disk.
  signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  rlimit small = before;
  small.rlim_cur = 64 * 1024;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  EXPECT_THROW(file.Commit({{StateKind::kAgreed, "b", Value("1")},
                            {StateKind::kAgreed, "c", Value(std::string(1'000'000, 'v'))}}),
               tavix::osa::Exception);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_EQ(All(file).size(), 1u);
  file.Commit({{StateKind::kAgreed, "b", Value("1")}});
  EXPECT_EQ(All(file).size(), 2u);
}

TEST_F(StateFileTest, HasWhatWasCommittedWhenTheProcessIsKilled) {
  const pid_t child = fork();
  if (child == 0) {
    StateFile file(path);
    file.Commit({{StateKind::kAgreed, "a", Value("1")}});
    (void)kill(getpid(), SIGKILL);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  StateFile file(path);
  EXPECT_EQ(All(file).size(), 1u);
  EXPECT_EQ(file.GetDamage(), "");
}

TEST_F(StateFileTest, IsOneBridgesAlone) {
  {
    const StateFile file(path);
    try {
      const StateFile other(path);
      ADD_FAILURE();
    } catch (const tavix::bridge::StateInUse& error) {
      EXPECT_THAT(error.what(), testing::HasSubstr("'" + path + "'"));
    }
  }
  const StateFile next(path);
}

TEST_F(StateFileTest, NamesAFileThatItCanNotOpen) {
  try {
    StateFile file(directory.Path("none/state.db"));
    FAIL();
  } catch (const tavix::osa::Exception& error) {
    EXPECT_EQ(std::string(error.what()),
              "Failed to open the state '" + directory.Path("none/state.db") + "': No such file or directory");
  }
}

}  // namespace
