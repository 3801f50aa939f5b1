#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "tests/programs/server/Daemon.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/CommandProcess.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

using Words = std::vector<std::string>;

// The real command beside a real daemon with a few defaults and restricted settings.
//
// Outcomes are compared byte by byte: ExpectRun takes what has to stand on standard output and on standard error.
class CommandTest : public testing::Test {
 protected:
  static constexpr char kDefaults[] =
      "[Device/Identity]\nmodel=NC-240\nname=Camera\n"
      "[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n"
      "[Network/Wlan0]\nenabled=false\n";
  static constexpr char kRestricted[] = "[Secure/Wlan0]\npassphrase=example\n";

  CommandTest()
      : _daemon(_directory, {"--defaults", _directory.Write("defaults.ini", kDefaults), "--restricted",
                             _directory.Write("restricted.ini", kRestricted), "--user-settings", "user.ini"}),
        _address(_daemon.AwaitAddresses().front()) {}

  // The daemon's address, a terminal that can do colors, and nothing of the machine's own.
  Variables Environment(Variables more = {}) const {
    Variables variables{{"TAVIX_SETTINGS_SERVER", _address},
                        {"TERM", "xterm"},
                        {"NO_COLOR", std::nullopt},
                        {"EDITOR", std::nullopt},
                        {"VISUAL", std::nullopt},
                        {"TMPDIR", _directory.GetPath()},
                        {"LC_ALL", "C"}};
    for (auto& [name, value] : more) variables[name] = value;
    return variables;
  }

  // As words of a shell's command: the path may hold blanks.
  static std::string QuotedProgram() { return "'" TAVIX_CLI_PROGRAM "' " + std::string(kTimeout) + " " + kSeconds; }

  // The usual two seconds of silence may pass while a busy machine's disk syncs a change.
  static Words WithProgram(Words words) {
    const bool saysHowLong = std::find(words.begin(), words.end(), kTimeout) != words.end();
    const bool isCompletion = !words.empty() && words.front() == "__complete";
    if (!words.empty() && !saysHowLong && !isCompletion) words.insert(words.begin(), {kTimeout, kSeconds});
    words.insert(words.begin(), TAVIX_CLI_PROGRAM);
    return words;
  }

  Outcome Run(const Words& words, const std::string& input = {}, const Variables& more = {}) const {
    return RunToEnd(_directory.GetPath(), WithProgram(words), input, Environment(more));
  }

  // A line of the shell with the program as the words "$0" "$@".
  Outcome RunInShell(const std::string& line, const std::string& input = {}) const {
    return RunToEnd(_directory.GetPath(), {"sh", "-c", line, TAVIX_CLI_PROGRAM, kTimeout, kSeconds}, input,
                    Environment());
  }

  void ExpectRun(const Words& words, int status, const std::string& output, const std::string& errors) const {
    const Outcome outcome = Run(words);
    const std::string line = testing::PrintToString(words);
    EXPECT_EQ(outcome.output, output) << line;
    EXPECT_EQ(outcome.errors, errors) << line;
    EXPECT_EQ(outcome.status, status) << line;
  }

  static std::string AskAgainWhile(const std::string& late, const std::function<std::string()>& ask) {
    std::string answer = late;
    Eventually([&] { return (answer = ask()) != late; });
    return answer;
  }

  // What the last word may become, in lines. What would come too late for a shell is nothing, and so is asked for
  // again.
  std::string Complete(const Words& words) const {
    return AskAgainWhile("", [&] { return CompleteOnce(words); });
  }

  std::string CompleteOnce(Words words) const {
    words.insert(words.begin(), "__complete");
    const Outcome outcome = Run(words);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errors, "");
    return outcome.output;
  }

  // What the daemon holds, by the protocol and not by the command.
  std::string Ask(const std::string& groups) const {
    std::string reply = ProtocolClient(_daemon.GetPort()).Get(groups + "\n");
    return reply.substr(5, reply.size() - 5 - 2);
  }

  std::string AskUser() const { return Converse(_daemon.GetPort(), "dump\n"); }

  // A change by somebody else; done when it returns.
  void Merge(const std::string& settings) const {
    ProtocolClient client(_daemon.GetPort());
    client.Send("merge\n" + settings + ".\n");
    client.AwaitHandled();
  }

  static constexpr char kTimeout[] = "-t";
  static constexpr char kSeconds[] = "80";

  const TemporaryDirectory _directory;
  const Daemon _daemon;
  const std::string _address;
};

}  // namespace tavix::test
