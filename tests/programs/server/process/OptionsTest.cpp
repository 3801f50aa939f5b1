#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <iterator>

#include "programs/server/options/OptionTable.h"
#include "tests/programs/server/Daemon.h"

namespace tavix::test {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

struct Outcome {
  int status;
  std::string output;
  std::string errors;
};

// Runs the program to its end.
Outcome RunToEnd(const std::vector<std::string>& arguments) {
  const TemporaryDirectory directory;
  DaemonProcess daemon(ServerProgram(), directory.GetPath(), arguments);
  const int status = daemon.AwaitEnd();
  return {status, daemon.GetOutput(), daemon.GetErrors()};
}

bool HasIpv6Loopback() {
  std::ifstream addresses("/proc/net/if_inet6");
  for (std::string line; std::getline(addresses, line);) {
    if (line.rfind("00000000000000000000000000000001 ", 0) == 0) return true;
  }
  return false;
}

// A terabyte, where the daemon's addresses reach that far.
std::string MaxBound() {
  std::ifstream program(ServerProgram(), std::ios::binary);
  const bool has64Bits = std::string(std::istreambuf_iterator<char>(program), {}).at(4) == 2;  // elf(5): EI_CLASS
  return has64Bits ? "1099511627776" : "2147483647";
}

}  // namespace

TEST(Options, HelpNamesEveryOptionAndExitStatusOnStandardOutput) {
  const Outcome outcome = RunToEnd({"--help"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.errors, "");
  EXPECT_THAT(outcome.output, StartsWith("Usage: tavix-settings-server [OPTION]...\n"));
  for (const daemon::OptionEntry& entry : daemon::GetOptionTable())
    EXPECT_THAT(outcome.output, HasSubstr("\n  --" + std::string(entry.name) + (*entry.argument ? " " : "")));
  for (const char* word : {"127.0.0.1:7211", "64", "69", "74", "78", "SIGHUP", "SIGUSR1"})
    EXPECT_THAT(outcome.output, HasSubstr(word));
  std::istringstream lines(outcome.output);
  for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 80u) << line;
}

TEST(Options, HelpHasAShortName) {
  const Outcome outcome = RunToEnd({"-h"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.errors, "");
  EXPECT_EQ(outcome.output, RunToEnd({"--help"}).output);
}

TEST(Options, VersionIsOneLineOnStandardOutput) {
  const Outcome outcome = RunToEnd({"--version"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output, MatchesRegex("tavix-settings-server [0-9]+\\.[0-9]+\\.[0-9]+\n"));
  EXPECT_EQ(outcome.errors, "");
}

TEST(Options, CommandLineThatIsNotUnderstoodEndsWithStatus64AndAHint) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
      {{"--nonsense"}, "unrecognized option '--nonsense'"},
      {{"--listen"}, "option '--listen' requires an argument"},
      {{"--check=yes"}, "option '--check' doesn't allow an argument"},
      {{"-x"}, "invalid option -- 'x'"},
      {{"--check", "extra"}, "unexpected argument 'extra'"},
      {{"--check", "--", "--check"}, "unexpected argument '--check'"},
  };
  for (const auto& [arguments, reason] : cases) {
    const Outcome outcome = RunToEnd(arguments);
    EXPECT_EQ(outcome.status, 64) << reason;
    EXPECT_EQ(outcome.output, "") << reason;
    EXPECT_THAT(outcome.errors, HasSubstr(reason));
    EXPECT_THAT(outcome.errors, HasSubstr("Try 'tavix-settings-server --help'.\n"));
  }
}

TEST(Options, ListenAddressThatIsNoneEndsWithStatus64) {
  const std::string expected = "expected HOST:PORT, [V6]:PORT or unix:PATH";
  const std::string expectedPath = "expected unix: and a path of at most 107 bytes";
  const std::vector<std::pair<std::string, std::string>> cases{
      {"", expected},
      {"nonsense", expected},
      {":7211", expected},
      {"127.0.0.1:", expected},
      {"127.0.0.1:x", expected},
      {"127.0.0.1:65536", expected},
      {"127.0.0.1:-1", expected},
      {"::1:7211", expected + "; a port? [::1]:7211"},
      {"/run/x.sock", expected + "; a path? unix:/run/x.sock"},
      {"http://camera:7211", expected + "; no URL: HOST:PORT"},
      {"[::1]", expected},
      {"unix:", expectedPath},
      {"unix:/" + std::string(107, 'x'), expectedPath},
  };
  for (const auto& [address, reason] : cases) {
    const Outcome outcome = RunToEnd({"--listen", "127.0.0.1:0", "--listen", address});
    EXPECT_EQ(outcome.status, 64) << address;
    EXPECT_EQ(outcome.output, "") << address;
    EXPECT_THAT(outcome.errors, StartsWith("tavix-settings-server: --listen '" + address + "': " + reason + "\n"));
  }
}

TEST(Options, ValueThatIsNoneEndsWithStatus64AndSaysWhatIsExpected) {
  const std::vector<std::array<std::string, 3>> cases{
      {"--loops", "0", "a number from 1 to 64"},
      {"--loops", "65", "a number from 1 to 64"},
      {"--all-backlogs", "1099511627777", "a number from 1 to " + MaxBound()},
      {"--max-line", "1 ", "a number from 1 to " + MaxBound()},
      {"--metrics-interval", "-1", "a number from 1 to 86400"},
      {"--stop-timeout", "0", "a number from 1 to 86400"},
      {"--request-timeout", "86401", "a number from 1 to 86400"},
      {"--backlog-timeout", "9999999999", "a number from 1 to 86400"},
      {"--history", "16383", "0, or a number from 16384 to 67108864"},
      {"--history", "67108865", "a number from 0 to 67108864"},
      {"--unix-mode", "0800", "an octal number from 0 to 0777"},
      {"--unix-mode", "1000", "an octal number from 0 to 0777"},
      {"--allow-uid", "1,x", "the numbers of users, with commas between them"},
      {"--allow-uid", ",", "the numbers of users, with commas between them"},
      {"--allow-uid", "4294967295", "the numbers of users, with commas between them"},
      {"--log-level", "loud", "error, warning, notice, information or trace"},
      {"--log-file", "relative.log", "an absolute path"},
      {"--defaults", "", "a path"},
      {"--user-settings", "", "a path"},
      {"--restricted-dir", "", "a path"},
      {"--config", "", "a path"},
  };
  for (const auto& [option, value, expected] : cases) {
    const Outcome outcome = RunToEnd({option, value});
    EXPECT_EQ(outcome.status, 64) << option;
    EXPECT_EQ(outcome.errors, "tavix-settings-server: " + option + " '" + value + "': expected " + expected +
                                  "\nTry 'tavix-settings-server --help'.\n");
  }
}

TEST(Options, HistoryWithoutUserSettingsEndsWithStatus78) {
  for (const char* action : {"--loops=1", "--check"}) {
    const Outcome outcome = RunToEnd({"--history", "16384", action});
    EXPECT_EQ(outcome.status, 78);
    EXPECT_EQ(outcome.errors,
              "tavix-settings-server: --history: there is nothing to keep a history of without --user-settings\n");
  }
}

TEST(Options, FlagMayBeSwitchedOffAndTakesNothingElse) {
  const Outcome outcome = RunToEnd({"--allow-remote", "--allow-remote=no", "--listen", "0.0.0.0:0"});
  EXPECT_EQ(outcome.status, 69);
  const Outcome wrong = RunToEnd({"--allow-remote=perhaps"});
  EXPECT_EQ(wrong.status, 64);
  EXPECT_THAT(wrong.errors, StartsWith("tavix-settings-server: --allow-remote 'perhaps': expected true or false\n"));
}

TEST(Options, FlagMayHaveItsValueAsAWordOfItsOwn) {
  const Outcome off = RunToEnd({"--allow-remote", "--allow-remote", "no", "--listen", "0.0.0.0:0"});
  EXPECT_EQ(off.status, 69);
  EXPECT_THAT(off.errors, HasSubstr("it is not loopback, and --allow-remote was not given\n"));
  for (const char* word : {"perhaps", ""}) {
    const Outcome wrong = RunToEnd({"--log-stderr", word});
    EXPECT_EQ(wrong.status, 64);
    EXPECT_THAT(wrong.errors, StartsWith("tavix-settings-server: unexpected argument '" + std::string(word) + "'\n"));
  }
}

TEST(Options, AddressThatIsNotLoopbackEndsWithStatus69UnlessThatIsAllowed) {
  for (const char* address : {"0.0.0.0:0", "[::]:0", "192.0.2.1:0"}) {
    const Outcome outcome = RunToEnd({"--listen", "127.0.0.1:0", "--listen", address});
    EXPECT_EQ(outcome.status, 69) << address;
    EXPECT_EQ(outcome.output, "") << address;
    EXPECT_EQ(outcome.errors, "tavix-settings-server: Can't listen on '" + std::string(address) +
                                  "': it is not loopback, and --allow-remote was not given\n");
  }
}

TEST(Options, AddressInUseEndsWithStatus69AndSaysSo) {
  const TemporaryDirectory directory;
  Daemon first(directory);
  const std::string address = first.AwaitAddresses().front();
  const Outcome second = RunToEnd({"--listen", address});
  EXPECT_EQ(second.status, 69);
  EXPECT_EQ(second.errors, "tavix-settings-server: Can't listen on '" + address + "': Address already in use\n");
  ProtocolClient(first.GetPort()).AwaitHandled();
}

TEST(Options, EveryAddressIsServedAndThePortIsTheOneThatTheKernelPicked) {
  const TemporaryDirectory directory;
  DaemonProcess daemon(ServerProgram(), directory.GetPath(),
                       {"--listen", "127.0.0.1:0", "--listen", "127.0.0.1:0", "--listen", "127.1.2.3:0"});
  const std::vector<std::string> addresses = daemon.AwaitAddresses(3);
  EXPECT_THAT(addresses,
              ElementsAre(MatchesRegex("127\\.0\\.0\\.1:[1-9][0-9]+"), MatchesRegex("127\\.0\\.0\\.1:[1-9][0-9]+"),
                          MatchesRegex("127\\.1\\.2\\.3:[1-9][0-9]+")));
  EXPECT_NE(addresses[0], addresses[1]);
  for (const std::string& address : addresses) ProtocolClient(address).AwaitHandled();
}

TEST(Options, VersionSixAddressesStandInBrackets) {
  const TemporaryDirectory directory;
  DaemonProcess daemon(ServerProgram(), directory.GetPath(), {"--listen", "[::1]:0"});
  if (!HasIpv6Loopback()) {
    EXPECT_EQ(daemon.AwaitEnd(), 69);
    return;
  }
  const std::string address = daemon.AwaitAddresses().front();
  EXPECT_THAT(address, MatchesRegex("\\[::1\\]:[1-9][0-9]+"));
  ProtocolClient(address).AwaitHandled();
}

TEST(Options, RemoteAddressIsServedWhenThatIsAllowed) {
  const TemporaryDirectory directory;
  DaemonProcess daemon(ServerProgram(), directory.GetPath(), {"--allow-remote", "--listen", "0.0.0.0:0"});
  EXPECT_THAT(daemon.AwaitAddresses().front(), MatchesRegex("0\\.0\\.0\\.0:[1-9][0-9]+"));
  ProtocolClient(daemon.GetPort()).AwaitHandled();
}

TEST(Options, StandardOutputHoldsTheAddressesAndNothingElse) {
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  const std::string address = daemon.AwaitAddresses().front();
  Converse(daemon.GetPort(), "bogus\n");
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_EQ(daemon.GetOutput(), "tavix-settings-server: listening on " + address + "\n");
}

}  // namespace tavix::test
