#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/process/FileFaultsModule.h"
#include "tests/support/FileFaults.h"

namespace tavix::test {

inline constexpr int kALittle = 50;  // milliseconds, in which what is not held back would come

// A daemon with the groups A, B and C saved and a journal that has begun.
class HeldOutput : public testing::Test {
 protected:
  explicit HeldOutput(std::string durability = "always") : _durability(std::move(durability)) {
    Start();
    for (const char* group : {"A", "B", "C"}) {
      _writer->Send(Merge(group, 0));
      _writer->AwaitHandled();
    }
  }

  ~HeldOutput() override { _faults.LetSyncsGo(); }

  void Start(std::vector<std::string> arguments = {}) {
    const FileFaults::Environment environment(_faults, FileFaultsModule());
    arguments.insert(arguments.end(), {"--user-settings", _directory.Path("user.ini"), "--durability", _durability});
    _daemon.emplace(_directory, arguments);
    _writer.emplace(_daemon->GetPort());
  }

  static std::string Merge(const std::string& group, int value) {
    return "merge\n[" + group + "]\nx=" + std::to_string(value) + "\n.\n";
  }

  static std::string Document(const std::string& group, int value) {
    return "[" + group + "]\nx=" + std::to_string(value) + "\n.\n";
  }

  static std::string Question(const std::string& groups) { return "get delimited\n" + groups + ".\n"; }

  // The disk stands still from now on, while it syncs a change of A.
  void ChangeAOnASlowDisk() {
    _faults.HoldSyncs();
    _writer->Send(Merge("A", 1));
    _faults.AwaitHeldSync();
  }

  // Nothing comes before the disk is let go, then that does.
  void ExpectHeldUntilTheDiskGoesOn(ProtocolClient& client, const std::string& expected) {
    EXPECT_EQ(client.ReadFor(kALittle), "");
    ASSERT_TRUE(_faults.IsSyncHeld());
    _faults.LetSyncsGo();
    EXPECT_EQ(client.Read(expected.size()), expected);
  }

  // Nothing is logged but that the disk is slow, as it is for long on a busy machine.
  void ExpectNoErrors() const {
    std::istringstream lines(_daemon->GetErrors());
    for (std::string line; std::getline(lines, line);) EXPECT_THAT(line, testing::HasSubstr(": the disk "));
  }

  void KillAndRestart() {
    EXPECT_EQ(_daemon->Stop(SIGKILL), 128 + SIGKILL);
    _faults.LetSyncsGo();
    Start();
  }

  const TemporaryDirectory _directory;
  FileFaults _faults{_directory.GetPath()};
  const std::string _durability;
  std::optional<Daemon> _daemon;
  std::optional<ProtocolClient> _writer;
};

}  // namespace tavix::test
