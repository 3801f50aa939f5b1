#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tavix/osa/Descriptor.h"
#include "tests/programs/server/Daemon.h"

// Logs that nobody reads or that can't be written.

namespace tavix::test {

namespace {

using testing::HasSubstr;

class Log : public testing::Test {
 protected:
  const TemporaryDirectory _directory;
};

// The daemon with standard error on a pipe that stays open and that nobody reads.
class StalledDaemon : public DaemonProcess {
 public:
  explicit StalledDaemon(const TemporaryDirectory& directory)
      : DaemonProcess("/bin/sh", directory.GetPath(),
                      {"-c",
                       "mkfifo -m 0600 errors; exec 3<>errors; "
                       "exec \"$0\" --config /dev/null --log-level trace --listen 127.0.0.1:0 2>errors",
                       ServerProgram()}) {}
};

constexpr size_t kCommands = 5000;
constexpr size_t kOtherLines = 5;  // three of the start, and two of the connection

// Each is traced twice. Traces are not bounded, other than warnings of what a peer does.
std::string ManyCommands() {
  std::string requests;
  for (size_t i = 0; i < kCommands; ++i) requests += "info\n";
  return requests;
}

// What a pipe holds at the moment.
std::string Drain(const std::string& path) {
  const osa::Descriptor pipe(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  std::string text;
  char part[4096];
  for (ssize_t count; (count = read(pipe.Get(), part, sizeof part)) > 0;) text.append(part, static_cast<size_t>(count));
  return text;
}

}  // namespace

TEST_F(Log, PipeThatNobodyReadsHoldsNobodyUp) {
  StalledDaemon daemon(_directory);
  Converse(daemon.GetPort(), ManyCommands());
  for (int i = 0; i < 4; ++i) EXPECT_EQ(Converse(daemon.GetPort(), "bogus\nget delimited\n.\n"), "data\n.\n");
  EXPECT_EQ(daemon.Stop(), 0);
}

TEST_F(Log, PipeThatIsReadAgainIsToldWhatWasLost) {
  StalledDaemon daemon(_directory);
  Converse(daemon.GetPort(), ManyCommands());
  const std::string first = Drain(_directory.Path("errors"));
  EXPECT_THAT(first, HasSubstr("Handling command: info\n"));
  Converse(daemon.GetPort(), "again\n");
  const size_t lost = 2 * kCommands + kOtherLines - CountOf("\n", first);
  const std::string second = Drain(_directory.Path("errors"));
  EXPECT_THAT(second, HasSubstr("lines lost here, because the output took no more: " + std::to_string(lost) + "\n"));
  EXPECT_THAT(second, HasSubstr("Invalid command: again\n"));
}

TEST_F(Log, PipeThatNobodyReadsDoesNotHoldUpAStartThatFails) {
  DaemonProcess daemon("/bin/sh", _directory.GetPath(),
                       {"-c",
                        "mkfifo errors; exec 3<>errors; dd if=/dev/zero of=errors bs=4096 oflag=nonblock; "
                        "exec \"$0\" --config /dev/null --listen 0.0.0.0:0 2>errors",
                        ServerProgram()});
  EXPECT_EQ(daemon.AwaitEnd(), 69);
}

// A device has to come up, and its log has to go somewhere.
TEST_F(Log, FileThatCanNotBeOpenedAtTheStartIsReplacedByStandardError) {
  const std::string file = _directory.Path("gone/d.log");
  Daemon daemon(_directory, {"--log-stderr=no", "--log-file", file});
  Converse(daemon.GetPort(), "bogus\n");
  daemon.AwaitErrors("WARNING Logger: Failed to open log file '" + file + "': No such file or directory");
  daemon.AwaitErrors("Invalid command: bogus\n");
}

}  // namespace tavix::test
