#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <map>
#include <set>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/PrometheusText.h"
#include "tests/support/BackgroundCall.h"

namespace tavix::test {

namespace {

namespace fs = std::filesystem;

constexpr char kFile[] = "metrics.prom";

class Metrics : public testing::Test {
 protected:
  std::vector<std::string> Arguments(std::vector<std::string> more = {}) const {
    more.insert(more.begin(), {"--metrics-file", kFile});
    return more;
  }

  PrometheusText Read() const { return PrometheusText(_directory.Read(kFile)); }

  // Figures of now: what counts has come to rest.
  PrometheusText ReadAnew(const Daemon& daemon) const {
    daemon.AwaitIdle();
    fs::remove(_directory.Path(kFile));
    daemon.Signal(SIGUSR1);
    EXPECT_TRUE(Eventually([&] { return _directory.Has(kFile); }));
    return Read();
  }

  // Has figures written until one is as wanted. The daemon serves before it writes the first ones.
  ::testing::AssertionResult Reaches(const Daemon& daemon, const std::string& series,
                                     const testing::Matcher<double>& wanted) const {
    daemon.AwaitAddresses();
    double seen = -1;
    const bool reached = Eventually([&] {
      daemon.Signal(SIGUSR1);
      if (!_directory.Has(kFile)) return false;
      seen = Read().Get(series);
      return wanted.Matches(seen);
    });
    if (reached) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << series << " is " << seen << ", which "
                                         << testing::DescribeMatcher<double>(wanted, true);
  }

  const TemporaryDirectory _directory;
};

}  // namespace

TEST_F(Metrics, AreThereWhenTheDaemonServesAndGoWithIt) {
  Daemon daemon(_directory, Arguments());
  daemon.AwaitAddresses();
  EXPECT_TRUE(Eventually([&] { return _directory.Has(kFile); }));
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_TRUE(fs::is_empty(_directory.GetPath()));
}

// A service that keeps its own files to itself has a umask for that.
TEST_F(Metrics, AreForEverybodyToReadWhateverTheUmask) {
  const mode_t before = umask(0077);
  Daemon daemon(_directory, Arguments());
  umask(before);
  daemon.AwaitAddresses();
  EXPECT_TRUE(Eventually([&] { return _directory.Has(kFile); }));
  struct stat status {};
  ASSERT_EQ(stat(_directory.Path(kFile).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644u);
}

TEST_F(Metrics, ThatCanNotBeWrittenLeaveNothing) {
  Daemon daemon(_directory, Arguments(), {{}, 0});
  daemon.AwaitErrors("ERROR MetricsFile: Failed to write metrics file '" + std::string(kFile) + ".new': ");
  EXPECT_TRUE(Eventually([&] { return fs::is_empty(_directory.GetPath()); }));
}

TEST_F(Metrics, TellWhichProgramThisIsAndWhatItUses) {
  const double before = static_cast<double>(std::time(nullptr));
  Daemon daemon(_directory, Arguments());
  ASSERT_TRUE(Reaches(daemon, "clients", 0));
  const PrometheusText metrics = Read();
  EXPECT_GT(metrics.Get("start_time_seconds"), before - 5);
  EXPECT_LT(metrics.Get("start_time_seconds"), static_cast<double>(std::time(nullptr)) + 5);
  EXPECT_GT(metrics.Get("resident_memory_bytes"), 1024 * 1024);
  EXPECT_GT(metrics.Get("open_descriptors"), 5);
  EXPECT_LT(metrics.Get("open_descriptors"), 50);
  EXPECT_EQ(metrics.GetSamples().count("tavix_settings_build_info{version=\"" TAVIX_TEST_VERSION "\"}"), 1u);
}

TEST_F(Metrics, AgreeWithWhatASessionDid) {
  _directory.Write("d.ini", "[A]\nx=1\ny=1\n[B]\n");
  _directory.Write("r.ini", "[Secure/S]\nk=1\n");
  Daemon daemon(_directory, Arguments({"--defaults", "d.ini", "--restricted", "r.ini", "--user-settings", "user.ini"}));
  ProtocolClient subscriber(daemon.GetPort());
  subscriber.Send("subscribe\nA\nC\n.\n");
  subscriber.AwaitHandled();
  ProtocolClient client(daemon.GetPort());
  const double before = static_cast<double>(std::time(nullptr));
  for (const char* request :
       {"merge\n[A]\nx=2\n.\n", "merge\n[C]\nz=1\n.\n", "merge\n[B]\nz=1\n.\n", "bogus\nserialize ini\n"}) {
    client.Send(request);
    client.AwaitHandled();
  }
  Converse(daemon.GetPort(), "GET / HTTP/1.1\n\n");
  Converse(daemon.GetPort(), "get\nA\n.\nquit\n");
  ASSERT_TRUE(Reaches(daemon, "clients", 2));
  const PrometheusText metrics = ReadAnew(daemon);
  const std::map<std::string, double> expected{
      {"connections_total", 4},
      {"connections_cut_total{reason=\"http\"}", 1},
      {"connections_cut_total{reason=\"tls\"}", 0},
      {"connections_refused_total{reason=\"too_many\"}", 0},
      {"commands_total{command=\"merge\"}", 3},
      {"commands_total{command=\"get\"}", 6},
      {"commands_total{command=\"subscribe\"}", 1},
      {"commands_total{command=\"serialize\"}", 1},
      {"commands_total{command=\"quit\"}", 1},
      {"commands_total{command=\"dump\"}", 0},
      {"unknown_commands_total", 1},
      {"notifications_total", 2},
      {"groups{layer=\"defaults\"}", 2},
      {"keys{layer=\"defaults\"}", 2},
      {"groups{layer=\"restricted\"}", 1},
      {"keys{layer=\"restricted\"}", 1},
      {"groups{layer=\"user\"}", 3},
      {"keys{layer=\"user\"}", 3},
      {"groups{layer=\"effective\"}", 4},
      {"keys{layer=\"effective\"}", 5},
      {"saves_total{result=\"ok\"}", 3},
      {"saves_total{result=\"failed\"}", 0},
      {"unsaved_seconds", 0},
      {"changes_refused_total{reason=\"store_full\"}", 0},
      {"changes_refused_total{reason=\"deleted_patterns\"}", 0},
      {"user_file_bytes", static_cast<double>(_directory.Read("user.ini").size())},
  };
  for (const auto& [series, value] : expected) EXPECT_EQ(metrics.Get(series), value) << series;
  EXPECT_GT(metrics.Get("store_bytes"), 0);
  EXPECT_GT(metrics.Get("command_seconds_total{command=\"merge\"}"), 0);
  EXPECT_EQ(metrics.Get("command_seconds_total{command=\"dump\"}"), 0);
  EXPECT_GE(metrics.Get("last_save_time_seconds"), before - 1);
  EXPECT_LE(metrics.Get("last_save_time_seconds"), static_cast<double>(std::time(nullptr)) + 1);
}

TEST_F(Metrics, ChangesThatTheStoreRefusesAreCounted) {
  Daemon daemon(_directory, Arguments({"--max-store", "1000"}));
  ProtocolClient client(daemon.GetPort());
  for (int i = 0; i < 2; ++i) client.Send("merge\n[A]\nx=" + std::string(1000, 'v') + "\n.\n");
  client.AwaitHandled();
  const PrometheusText metrics = ReadAnew(daemon);
  EXPECT_EQ(metrics.Get("changes_refused_total{reason=\"store_full\"}"), 2);
  EXPECT_EQ(metrics.Get("changes_refused_total{reason=\"deleted_patterns\"}"), 0);
  EXPECT_EQ(metrics.Get("store_bytes"), 0);
}

TEST_F(Metrics, SaveThatFailsIsCounted) {
  fs::create_directory(_directory.Path("data"));
  Daemon daemon(_directory, Arguments({"--user-settings", "data/user.ini"}));
  ProtocolClient client(daemon.GetPort());
  client.Send("merge\n[A]\nx=1\n.\n");
  client.AwaitHandled();
  fs::rename(_directory.Path("data"), _directory.Path("away"));
  client.Send("merge\n[A]\nx=2\n.\n");
  client.AwaitHandled();
  EXPECT_TRUE(Reaches(daemon, "saves_total{result=\"failed\"}", testing::Ge(1)));  // it is tried again after a second
  EXPECT_EQ(Read().Get("saves_total{result=\"ok\"}"), 1);
  fs::rename(_directory.Path("away"), _directory.Path("data"));
}

TEST_F(Metrics, ConnectionsThatAreRefusedOrCutAreCountedByTheirReason) {
  const std::string own = std::to_string(geteuid() + 1);
  Daemon daemon(_directory, Arguments({"--max-connections", "2", "--max-line", "100", "--allow-uid", own, "--listen",
                                       "unix:s.sock"}));
  const std::string unixAddress = "unix:" + _directory.Path("s.sock");
  const std::string tcpAddress = daemon.AwaitAddresses(2).back();
  EXPECT_EQ(ProtocolClient(unixAddress).ReadToEnd(), "");
  ProtocolClient first(tcpAddress);
  ProtocolClient second(tcpAddress);
  first.AwaitHandled();
  second.AwaitHandled();
  EXPECT_EQ(ProtocolClient(tcpAddress).ReadToEnd(), "");
  first.Send(std::string(101, 'x'));
  first.ReadToEnd();
  second.Send("merge\nnonsense\n.\n");
  second.ReadToEnd();
  ASSERT_TRUE(Reaches(daemon, "clients", 0));
  const PrometheusText metrics = ReadAnew(daemon);
  EXPECT_EQ(metrics.Get("connections_refused_total{reason=\"user\"}"), 1);
  EXPECT_EQ(metrics.Get("connections_refused_total{reason=\"too_many\"}"), 1);
  EXPECT_EQ(metrics.Get("connections_cut_total{reason=\"line\"}"), 1);
  EXPECT_EQ(metrics.Get("connections_cut_total{reason=\"error\"}"), 1);
  EXPECT_EQ(metrics.Get("connections_total"), 2);
}

TEST_F(Metrics, FileIsWholeAtEveryMomentWhileItIsReplaced) {
  Daemon daemon(_directory, Arguments());
  ASSERT_TRUE(Reaches(daemon, "clients", 0));
  std::set<std::string> versions;
  ProtocolClient client(daemon.GetPort());
  while (versions.size() < 100) {
    daemon.Signal(SIGUSR1);
    client.AwaitHandled();
    const std::string text = _directory.Read(kFile);
    ASSERT_NO_THROW(PrometheusText{text}) << text;
    versions.insert(text);
  }
}

TEST_F(Metrics, AreWrittenAnewAtEachInterval) {
  Daemon daemon(_directory, Arguments({"--metrics-interval", "1"}));
  ProtocolClient client(daemon.GetPort());
  client.AwaitHandled();
  EXPECT_TRUE(Eventually([&] { return _directory.Has(kFile) && Read().Get("clients") == 1; }));
  client.Close();
  EXPECT_TRUE(Eventually([&] { return Read().Get("clients") == 0; }));
}

TEST_F(Metrics, FileThatCanNotBeWrittenIsSaidOnceAndTheDaemonServesOn) {
  Daemon daemon(_directory, {"--metrics-file", "gone/metrics.prom", "--metrics-interval", "1"});
  daemon.AwaitErrors("ERROR MetricsFile: Failed to create metrics file 'gone/metrics.prom.new': No such file or");
  fs::create_directory(_directory.Path("gone"));
  EXPECT_TRUE(Eventually([&] { return _directory.Has("gone/metrics.prom"); }));
  ProtocolClient(daemon.GetPort()).AwaitHandled();
  EXPECT_EQ(CountOf("MetricsFile", daemon.GetErrors()), 1u);
}

TEST_F(Metrics, NoLabelNamesAGroupOrAKey) {
  Daemon daemon(_directory, Arguments());
  Converse(daemon.GetPort(), "merge\n[VerySpecial]\nunusual=1\n.\n");
  ASSERT_TRUE(Reaches(daemon, "commands_total{command=\"merge\"}", 1));
  EXPECT_THAT(_directory.Read(kFile),
              testing::Not(testing::AnyOf(testing::HasSubstr("VerySpecial"), testing::HasSubstr("unusual"))));
}

}  // namespace tavix::test
