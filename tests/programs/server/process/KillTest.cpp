#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <list>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/UserFiles.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/RunLength.h"

// The daemon is killed at random moments, again and again, while clients write at full speed: nothing is lost of what
// anybody was shown.

namespace tavix::test {

namespace {

namespace fs = std::filesystem;

constexpr size_t kWriters = 4;
constexpr uint64_t kSnapshots = 11;
constexpr char kAllWriters[] = "W*\n";

// How a writer learns of its own changes.
enum class Proof { kLaterRead, kResult, kNotice, kReadOfMany };

// Writes a group of its own, whose value grows by one with each change, until the daemon is gone.
class CountingWriter {
 public:
  CountingWriter(size_t index, size_t size)
      : _proof(static_cast<Proof>(index % 4)), _group("W" + std::to_string(index)), _padding(size, 'p') {}

  // onShown: called behind each change that was shown. Starts from what was found last.
  void Write(unsigned short port, const std::function<void()>& onShown) {
    try {
      ProtocolClient writer(port);
      ProtocolClient other(port);
      if (_proof == Proof::kNotice) other.Send("subscribe\n" + _group + "\n.\n");
      other.AwaitHandled();
      while (true) {
        Change(writer, other);
        onShown();
      }
    } catch (const std::exception&) {  // the end of the connection
    }
  }

  // settings: what was found after the end.
  void ExpectNothingLost(const core::IniFile& settings) {
    const int found = settings.GetIntOrDefault(_group, "n", 0);
    EXPECT_GE(found, _shown) << _group;
    EXPECT_LE(found, _sent) << _group;
    EXPECT_EQ(settings.GetValueOrDefault(_group, "v"), found > 0 ? _padding : "") << _group << " is torn";
    _sent = _shown = found;
  }

 private:
  std::string State(int number) const {
    return "[" + _group + "]\nn=" + std::to_string(number) + "\nv=" + _padding + "\n.\n";
  }

  void Change(ProtocolClient& writer, ProtocolClient& other) {
    const std::string before = State(_sent);
    const std::string after = State(++_sent);
    if (_proof == Proof::kResult) {
      const bool isFirst = _sent == 1;
      writer.Send("test-and-merge\n" + (isFirst ? ".\n" : before) + after);
      const std::string expected = "result\nok\n";
      if (writer.Read(expected.size()) != expected) ADD_FAILURE() << _group << " " << _sent;
    } else {
      writer.Send("merge\n" + after);
      AwaitShown(other);
    }
    _shown = _sent;
  }

  void AwaitShown(ProtocolClient& other) {
    const std::string end = "n=" + std::to_string(_sent) + "\n";
    while (Read(other).find(_group + "]\n" + end) == std::string::npos) continue;
  }

  // The next document that shows the group.
  std::string Read(ProtocolClient& other) const {
    if (_proof != Proof::kNotice) return other.Get(_proof == Proof::kLaterRead ? _group + "\n" : kAllWriters);
    other.ReadUntil("\n.\n");  // which groups changed
    return other.ReadUntil("\n.\n");
  }

  const Proof _proof;
  const std::string _group;
  const std::string _padding;
  int _sent = 0;
  int _shown = 0;
};

class Kill : public testing::Test {
 protected:
  // Rounds of a daemon that is killed after a random number of changes, and more of them until there were so many
  // snapshots: the kills should meet some that are being written. size: of a group, in bytes.
  void RunRounds(int rounds, size_t size, int maxChanges, uint64_t leastSnapshots = 0) {
    std::list<CountingWriter> writers;
    for (size_t i = 0; i < kWriters; ++i) writers.emplace_back(i, size);
    for (int round = 0; (round < rounds || _snapshots < leastSnapshots) && !HasFailure(); ++round) {
      SCOPED_TRACE("round " + std::to_string(round));
      RunRound(writers, std::uniform_int_distribution<int>(0, maxChanges)(_random));
    }
  }

  void RunRound(std::list<CountingWriter>& writers, int changes) {
    Daemon daemon(_directory, {"--user-settings", "user.ini", "--durability", _durability});
    const unsigned short port = daemon.GetPort();
    ExpectServed(port);
    std::atomic<int> left{changes};
    const auto onShown = [&] {
      if (--left == 0) daemon.Signal(SIGKILL);
    };
    if (changes == 0) daemon.Signal(SIGKILL);
    {
      std::list<BackgroundCall> calls;
      for (CountingWriter& writer : writers) calls.emplace_back([&] { writer.Write(port, onShown); });
    }
    EXPECT_EQ(daemon.AwaitEnd(), 128 + SIGKILL) << daemon.GetErrors();
    ExpectNoErrors(daemon.GetErrors());
    ExpectWholeFiles(writers);
  }

  // The kill before may have come in the middle of a long write: nobody was shown that change. And the disk of a busy
  // machine may take long.
  static void ExpectNoErrors(const std::string& log) {
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
      EXPECT_THAT(line, testing::AnyOf(testing::HasSubstr("ends with an unfinished change, which is dropped"),
                                       testing::HasSubstr(": the disk ")));
    }
  }

  void ExpectWholeFiles(std::list<CountingWriter>& writers) {
    const daemon::FoundUserSettings found = FindSaved(_directory.Path("user.ini"));
    EXPECT_THAT(found.problems, testing::IsEmpty());
    for (CountingWriter& writer : writers) writer.ExpectNothingLost(found.settings);
    _found = TextOf(found.settings);
    _snapshots = std::max(_snapshots, found.snapshot.generation);
    for (const auto& file : fs::directory_iterator(_directory.GetPath()))
      EXPECT_EQ(file.path().string().find(".bad-"), std::string::npos) << file.path();
  }

  // What the files hold is what a daemon makes of them.
  void ExpectServed(unsigned short port) const {
    EXPECT_EQ(Converse(port, "get delimited\n*\n.\n"), "data\n" + _found + ".\n");
  }

  const TemporaryDirectory _directory;
  std::string _durability = "always";
  std::mt19937 _random{7};
  std::string _found;
  uint64_t _snapshots = 0;
};

}  // namespace

TEST_F(Kill, LosesNothingOfASmallLayerThatAnybodyWasShown) {
  RunRounds(IsLongRun() ? 1000 : 25, 500, 400, kSnapshots);
}

// Only a power cut may take back what was shown.
TEST_F(Kill, LosesNothingWithALaterSyncEither) {
  _durability = "250ms";
  RunRounds(IsLongRun() ? 300 : 20, 200, 2000);
}

TEST_F(Kill, LosesNothingWithoutAnySyncEither) {
  _durability = "none";
  RunRounds(IsLongRun() ? 300 : 20, 200, 2000);
}

TEST_F(Kill, LosesNothingOfLargeGroupsThatAnybodyWasShown) {
  RunRounds(IsLongRun() ? 1000 : 40, 20'000, 40, kSnapshots);
}

}  // namespace tavix::test
