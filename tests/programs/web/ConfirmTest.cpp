// Changes on trial whose program or daemon is killed behind them: they are confirmed or go back.

#include <gtest/gtest.h>

#include <csignal>

#include "tests/programs/web/Web.h"

namespace tavix::test {

using nlohmann::json;

namespace {

// A daemon on a unix socket, which finds its address and its files again, and the program in front of it.
class Trials {
 public:
  Trials() {
    StartDaemon();
    StartProgram();
    Ask("PATCH", "/group?name=a", R"({"k": "old"})");
  }

  void StartDaemon() {
    daemon = std::make_unique<Daemon>(
        directory, std::vector<std::string>{"--user-settings", "user.ini", "--listen", GetAddress()});
    daemon->AwaitAddresses(2);
  }

  void StartProgram() {
    const std::string tokens = directory.Write("tokens", "test " + std::string(64, 'a') + " write\n");
    if (chmod(tokens.c_str(), 0600) != 0) throw std::runtime_error("No file of tokens");
    process = std::make_unique<WebProcess>(directory, GetAddress(), std::vector<std::string>{"--token-file", tokens});
  }

  void KillDaemon() {
    daemon->Stop(SIGKILL);
    daemon.reset();
  }

  void KillProgram() {
    process->Stop(SIGKILL);
    process.reset();
  }

  HttpReply Ask(const std::string& method, const std::string& target, const std::string& body = {}) const {
    return HttpConnection(process->GetPort()).Ask(method, "/api/v1" + target, body, kAuthorization);
  }

  // Has a change put on trial; the trial's name.
  std::string Arm() const { return Parse(Ask("POST", "/apply", kChange))["pending"]["name"]; }

  int Confirm(const std::string& name) const {
    return Ask("POST", "/pending/confirm", R"({"name": ")" + name + "\"}").status;
  }

  std::string ReadValue(const std::string& group = "a") const {
    return Parse(Ask("GET", "/group?name=" + group))["keys"]["k"]["value"];
  }

  json ReadPending() const { return Parse(Ask("GET", "/pending"))["pending"]; }

  static constexpr char kChange[] = R"({"set": {"a": {"k": "new"}, "b": {"k": "new"}}, "confirm": 600})";

  TemporaryDirectory directory;
  std::unique_ptr<Daemon> daemon;
  std::unique_ptr<WebProcess> process;
  const std::string kAuthorization = "Authorization: Bearer " + std::string(64, 'a') + "\r\n";

 private:
  std::string GetAddress() const { return "unix:" + directory.Path("daemon.sock"); }
};

}  // namespace

TEST(WebConfirm, IsLeftToAnotherProgramWhenThisOneIsKilled) {
  Trials web;
  const std::string name = web.Arm();
  web.KillProgram();
  web.StartProgram();
  EXPECT_EQ(web.ReadValue(), "new");
  ASSERT_EQ(web.ReadPending().size(), 1U);
  EXPECT_EQ(web.Confirm(name), 200);
  EXPECT_EQ(web.ReadValue(), "new");
}

TEST(WebConfirm, HasNotComeWhenTheDaemonIsKilled) {
  Trials web;
  const std::string name = web.Arm();
  web.KillDaemon();
  web.StartDaemon();
  EXPECT_EQ(web.ReadValue(), "old");
  EXPECT_NE(web.Confirm(name), 200);
  EXPECT_EQ(web.ReadPending().size(), 0U);
}

TEST(WebConfirm, LastsWhenBothAreKilledBehindIt) {
  Trials web;
  EXPECT_EQ(web.Confirm(web.Arm()), 200);
  web.KillProgram();
  web.KillDaemon();
  web.StartDaemon();
  web.StartProgram();
  EXPECT_EQ(web.ReadValue(), "new");
  EXPECT_EQ(web.ReadPending().size(), 0U);
}

TEST(WebConfirm, SparesWhatOthersWroteMeanwhile) {
  Trials web;
  web.Arm();
  web.Ask("PATCH", "/group?name=b", R"({"k": "foreign"})");
  web.KillDaemon();
  web.StartDaemon();
  EXPECT_EQ(web.ReadValue("a"), "old");
  EXPECT_EQ(web.ReadValue("b"), "foreign");
}

}  // namespace tavix::test
