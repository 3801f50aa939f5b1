// A change on trial whose program or daemon is killed at each step between the two: it is confirmed or goes back, as a
// whole, and what others wrote meanwhile stays.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <thread>
#include <utility>

#include "tests/programs/web/Web.h"
#include "tests/support/ListeningSocket.h"

namespace tavix::test {

using nlohmann::json;

namespace {

// Stands between a program and its daemon, and passes on so many pieces of what the two send. In place of the next one
// it calls "cut", and ends the connection.
//
// Threads: the test's main thread, but for "cut", which a thread of its own calls until End().
class CuttingRelay {
 public:
  ~CuttingRelay() { End(); }

  std::string GetAddress() const { return "127.0.0.1:" + std::to_string(_listener.GetPort()); }

  // For the next connection.
  void Begin(unsigned short daemon, int pieces, std::function<void()> cut) {
    _cut = std::move(cut);
    _thread = std::thread([this, daemon, pieces] { Run(daemon, pieces); });
  }

  // Waits until the daemon has carried out what it got. The program has ended, or "cut" was called. Returns whether it
  // was.
  bool End() {
    shutdown(_listener.GetDescriptor(), SHUT_RDWR);
    if (_thread.joinable()) _thread.join();
    return _hasCut;
  }

 private:
  void Run(unsigned short port, int pieces) {
    try {
      const osa::Descriptor program = _listener.Accept();
      ProtocolClient daemon(port);
      PassOn(program, daemon, pieces);
      daemon.HalfClose();
      daemon.ReadToEnd();
    } catch (const std::exception&) {  // nobody came, or one of the two has ended
    }
  }

  void PassOn(const osa::Descriptor& program, const ProtocolClient& daemon, int pieces) {
    for (int passed = 0;; ++passed) {
      pollfd looks[] = {{program.Get(), POLLIN, 0}, {daemon.GetDescriptor(), POLLIN, 0}};
      poll(looks, 2, -1);
      const bool isFromProgram = looks[0].revents != 0;
      char piece[4096];
      const ssize_t size = recv(looks[isFromProgram ? 0 : 1].fd, piece, sizeof piece, 0);
      if (size <= 0) return;
      if (passed == pieces) {
        _hasCut = true;
        return _cut();
      }
      if (send(looks[isFromProgram ? 1 : 0].fd, piece, static_cast<size_t>(size), MSG_NOSIGNAL) != size) return;
    }
  }

  const ListeningSocket _listener;
  std::function<void()> _cut;
  std::atomic<bool> _hasCut{false};
  std::thread _thread;
};

enum class Victim { kProgram, kDaemon };

// What became of a request whose program or daemon was to be killed.
struct Outcome {
  bool wasKilled;
  int status;  // 0: no answer came
};

// A daemon, and a program in front of it that nobody kills.
class Stage {
 public:
  Stage() { Start(); }

  // Settings of before: "a" has a value, "b" is not there.
  void Prepare() const {
    EXPECT_EQ(Ask("POST", "/apply", R"({"set": {"a": {"k": "old"}}, "unset": {"b": []}})").status, 200);
  }

  // Has another program make a request, and kills it or the daemon in place of the piece behind so many.
  Outcome AskAndKill(Victim victim, int pieces, const std::string& target, const std::string& body) const {
    CuttingRelay relay;
    WebProcess program(_directory, relay.GetAddress());
    HttpConnection connection(program.GetPort());
    DaemonProcess& killed = victim == Victim::kProgram ? static_cast<DaemonProcess&>(program) : *_daemon;
    relay.Begin(_daemon->GetPort(), pieces, [&killed] { killed.Stop(SIGKILL); });
    int status = 0;
    try {
      status = connection.Ask("POST", "/api/v1" + target, body).status;
      program.Stop();
    } catch (const std::runtime_error&) {  // the program was killed
    }
    return {relay.End(), status};
  }

  void KillDaemon() { _daemon->Stop(SIGKILL); }

  void Start() {
    _daemon = std::make_unique<Daemon>(_directory, std::vector<std::string>{"--user-settings", "user.ini"});
    _program = std::make_unique<WebProcess>(_directory, _daemon->AwaitAddresses()[0]);
  }

  HttpReply Ask(const std::string& method, const std::string& target, const std::string& body = {}) const {
    return HttpConnection(_program->GetPort()).Ask(method, "/api/v1" + target, body);
  }

  // The value of "k"; empty: there is none.
  std::string ReadValue(const std::string& group) const {
    const HttpReply reply = Ask("GET", "/group?name=" + group);
    const json keys = reply.status == 404 ? json::object() : Parse(reply).at("keys");
    return keys.contains("k") ? keys["k"]["value"].get<std::string>() : "";
  }

  json ReadPending() const { return Parse(Ask("GET", "/pending"))["pending"]; }

  // Puts a change on trial, part of which somebody else writes meanwhile. The trial's name.
  std::string Arm() const {
    std::string name = Parse(Ask("POST", "/apply", kChange))["pending"]["name"];
    EXPECT_EQ(Ask("PATCH", "/group?name=b", R"({"k": "foreign"})").status, 200);
    return name;
  }

  static std::string Confirmation(const std::string& name) { return R"({"name": ")" + name + "\"}"; }

  static constexpr char kChange[] = R"({"set": {"a": {"k": "new"}, "b": {"k": "new"}}, "confirm": 600})";

 private:
  const TemporaryDirectory _directory;
  std::unique_ptr<Daemon> _daemon;
  std::unique_ptr<WebProcess> _program;
};

// Calls "step" with 0, 1 and so on, until it returns that nothing was killed.
template <class Step>
void ForEachStep(Step step) {
  constexpr int kMinSteps = 4;  // a request and its answer, twice
  int pieces = 0;
  for (bool wasKilled = true; wasKilled && !testing::Test::HasFailure(); ++pieces) {
    SCOPED_TRACE("killed behind " + std::to_string(pieces) + " pieces");
    wasKilled = step(pieces);
  }
  EXPECT_GT(pieces, kMinSteps);
}

}  // namespace

TEST(WebConfirm, OfAProgramThatIsKilledWhileItArmsFindsAllOrNothing) {
  const Stage stage;
  ForEachStep([&](int pieces) {
    stage.Prepare();
    const Outcome outcome = stage.AskAndKill(Victim::kProgram, pieces, "/apply", Stage::kChange);
    EXPECT_EQ(outcome.status, outcome.wasKilled ? 0 : 200);
    const json pending = stage.ReadPending();
    EXPECT_LE(pending.size(), 1U);
    EXPECT_EQ(stage.ReadValue("a"), pending.empty() ? "old" : "new");
    EXPECT_EQ(stage.ReadValue("b"), pending.empty() ? "" : "new");
    if (!pending.empty()) stage.Ask("DELETE", "/pending?name=" + pending[0]["name"].get<std::string>());
    EXPECT_EQ(stage.ReadValue("a"), "old");
    EXPECT_EQ(stage.ReadValue("b"), "");
    return outcome.wasKilled;
  });
}

TEST(WebConfirm, OfADaemonThatIsKilledWhileItArmsFindsNothing) {
  Stage stage;
  ForEachStep([&](int pieces) {
    stage.Prepare();
    const Outcome outcome = stage.AskAndKill(Victim::kDaemon, pieces, "/apply", Stage::kChange);
    EXPECT_NE(outcome.status, 0);
    EXPECT_EQ(outcome.status == 200, !outcome.wasKilled);
    stage.KillDaemon();
    stage.Start();
    EXPECT_EQ(stage.ReadPending().size(), 0U);
    EXPECT_EQ(stage.ReadValue("a"), "old");
    EXPECT_EQ(stage.ReadValue("b"), "");
    return outcome.wasKilled;
  });
}

TEST(WebConfirm, OfAProgramThatIsKilledWhileItConfirmsIsLeftToAnother) {
  Stage stage;
  ForEachStep([&](int pieces) {
    stage.Prepare();
    const std::string confirmation = Stage::Confirmation(stage.Arm());
    const Outcome outcome = stage.AskAndKill(Victim::kProgram, pieces, "/pending/confirm", confirmation);
    EXPECT_EQ(outcome.status, outcome.wasKilled ? 0 : 200);
    const bool isPending = !stage.ReadPending().empty();
    EXPECT_EQ(stage.Ask("POST", "/pending/confirm", confirmation).status, isPending ? 200 : 409);
    stage.KillDaemon();
    stage.Start();
    EXPECT_EQ(stage.ReadValue("a"), "new");
    EXPECT_EQ(stage.ReadValue("b"), "foreign");
    return outcome.wasKilled;
  });
}

TEST(WebConfirm, OfADaemonThatIsKilledWhileItConfirmsIsDoneOrGoesBack) {
  Stage stage;
  ForEachStep([&](int pieces) {
    stage.Prepare();
    const std::string confirmation = Stage::Confirmation(stage.Arm());
    const Outcome outcome = stage.AskAndKill(Victim::kDaemon, pieces, "/pending/confirm", confirmation);
    EXPECT_EQ(outcome.status == 200, !outcome.wasKilled);
    stage.KillDaemon();
    stage.Start();
    EXPECT_EQ(stage.ReadPending().size(), 0U);
    const std::string value = stage.ReadValue("a");
    EXPECT_TRUE(value == "new" || (outcome.wasKilled && value == "old")) << value;
    EXPECT_EQ(stage.ReadValue("b"), "foreign");
    return outcome.wasKilled;
  });
}

}  // namespace tavix::test
