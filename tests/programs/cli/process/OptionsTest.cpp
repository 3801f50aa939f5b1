#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>

#include "tests/programs/cli/process/CommandTest.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/ListeningSocket.h"
#include "tests/support/RunLength.h"

namespace tavix::test {

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr char kHint[] =
    "hint: start one with 'tavix-settings-server', name another with --server, or use --local FILE\n";

class GlobalOptions : public CommandTest {};

// A server of one connection that answers what it is told to, once something is read.
class OneAnswer {
 public:
  explicit OneAnswer(std::string answer)
      : _thread([this, answer = std::move(answer)] {
          const osa::Descriptor peer = _listener.Accept();
          std::string received = ReceiveOnce(peer);
          while (!received.empty() && received.find("get delimited\n") == std::string::npos) {
            const std::string part = ReceiveOnce(peer);
            received = part.empty() ? part : received + part;
          }
          Send(peer, answer);
        }) {}
  ~OneAnswer() { _thread.join(); }

  std::string GetAddress() const { return "127.0.0.1:" + std::to_string(_listener.GetPort()); }

 private:
  const ListeningSocket _listener;
  std::thread _thread;
};

}  // namespace

TEST_F(GlobalOptions, HelpGoesToStandardOutput) {
  for (const Words& words : std::vector<Words>{{"--help"}, {"-h"}, {"help"}}) {
    const Outcome outcome = Run(words);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errors, "");
    for (const char* word :
         {"get",      "list",     "show",      "search",     "set",     "unset",     "delete",     "reset",
          "edit",     "diff",     "export",    "import",     "watch",   "wait",      "status",     "subscribers",
          "whoami",   "resource", "log-level", "completion", "version", "--server",  "--local",    "--timeout",
          "--output", "--json",   "--quiet",   "--verbose",  "--color", "--version", "Exit status"})
      EXPECT_THAT(outcome.output, HasSubstr(word));
  }
  EXPECT_THAT(Run({"get", "--help"}).output, HasSubstr("--default"));
  EXPECT_EQ(Run({"help", "get"}).output, Run({"get", "-h"}).output);
  EXPECT_THAT(Run({"resource", "reserve", "-h"}).output, HasSubstr("--consumer"));
}

TEST_F(GlobalOptions, GroupOfCommandsAloneShowsItsHelp) {
  const Outcome outcome = Run({"resource"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.errors, "");
  EXPECT_EQ(outcome.output, Run({"resource", "--help"}).output);
  EXPECT_THAT(outcome.output, HasSubstr("reserve"));
}

TEST_F(GlobalOptions, TimesMayHaveAUnit) {
  for (const char* time : {"80", "80.5", "80s", "80000ms"})
    ExpectRun({"-t", time, "get", "[Network/Eth0]dhcp"}, 0, "true\n", "");
  ExpectRun({"watch", "--for", "10ms"}, 0, "", "");
  for (const char* time : {"s", "ms", "2m", "2 s", "2ss", "0s"}) EXPECT_EQ(Run({"-t", time, "list"}).status, 2) << time;
}

TEST_F(GlobalOptions, VersionIsOneLine) {
  for (const char* option : {"-V", "--version", "version"}) {
    const Outcome outcome = Run({option});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.output, MatchesRegex("tavix-settings [0-9]+\\.[0-9]+\\.[0-9]+\n"));
  }
}

TEST_F(GlobalOptions, StandBeforeOrBehindTheCommand) {
  ExpectRun({"-s", _address, "get", "[Network/Eth0]dhcp"}, 0, "true\n", "");
  ExpectRun({"get", "[Network/Eth0]dhcp", "--server", _address, "-o", "value"}, 0, "true\n", "");
  ExpectRun({"-o", "json", "get", "[Network/Eth0]dhcp", "--server=" + _address}, 0, "\"true\"\n", "");
}

TEST_F(GlobalOptions, UnknownWordsGetASuggestion) {
  ExpectRun({"shwo"}, 2, "",
            "tavix-settings: there is no command 'shwo'; did you mean 'show'?\nhint: try 'tavix-settings --help'\n");
  ExpectRun({"get", "--defualt", "x", "[a]b"}, 2, "",
            "tavix-settings: there is no option '--defualt'; did you mean '--default'?\n"
            "hint: try 'tavix-settings get --help'\n");
  ExpectRun({"resource", "resreve"}, 2, "",
            "tavix-settings: there is no command 'resreve'; did you mean 'reserve'?\n"
            "hint: try 'tavix-settings resource --help'\n");
  ExpectRun({"help", "lst"}, 2, "", "tavix-settings: there is no command 'lst'; did you mean 'list'?\n");
  ExpectRun({"xyzzy"}, 2, "", "tavix-settings: there is no command 'xyzzy'\nhint: try 'tavix-settings --help'\n");
}

TEST_F(GlobalOptions, CommandLineThatIsNotUnderstoodIsExitStatus2) {
  for (const Words& words : std::vector<Words>{{},
                                               {"get"},
                                               {"-o", "xml", "list"},
                                               {"-t", "-1", "list"},
                                               {"-t", "soon", "list"},
                                               {"--color", "blue", "list"},
                                               {"--local", "x", "--server", "y", "list"},
                                               {"-s", "127.0.0.1:x", "list"},
                                               {"-s", "unix:", "list"},
                                               {"status", "now"},
                                               {"watch", "--count", "0"},
                                               {"search", "-k", "-g", "x"}}) {
    const Outcome outcome = Run(words);
    EXPECT_EQ(outcome.status, 2) << testing::PrintToString(words);
    EXPECT_EQ(outcome.output, "") << testing::PrintToString(words);
    EXPECT_THAT(outcome.errors, StartsWith("tavix-settings: ")) << testing::PrintToString(words);
  }
}

TEST_F(GlobalOptions, WithoutAServerEveryCommandFailsAtOnceWithAHint) {
  const ListeningSocket closed(ListeningSocket::kNotListening);
  const std::string address = "127.0.0.1:" + std::to_string(closed.GetPort());
  for (Words words : std::vector<Words>{{"get", "A"},       {"list"},
                                        {"show"},           {"search", "x"},
                                        {"set", "[A]b=c"},  {"unset", "[A]b"},
                                        {"delete", "A"},    {"reset", "A"},
                                        {"edit"},           {"diff", "/dev/null"},
                                        {"export"},         {"import", "/dev/null"},
                                        {"watch"},          {"wait", "[A]b"},
                                        {"status"},         {"ping"},
                                        {"subscribers"},    {"whoami"},
                                        {"resource", "ls"}, {"log-level"}}) {
    words.insert(words.end(), {"-s", address});
    const long took = MillisecondsOf(
        [&] { ExpectRun(words, 3, "", "tavix-settings: no server at " + address + ": Connection refused\n" + kHint); });
    if (IsLongRun()) {
      EXPECT_LT(took, 3000) << words[0];
    }
  }
}

TEST_F(GlobalOptions, EnvironmentNamesTheServerUnlessAnOptionDoes) {
  EXPECT_EQ(Run({"-s", _address, "list"}, {}, {{"TAVIX_SETTINGS_SERVER", "127.0.0.1:1"}}).status, 0);
  EXPECT_EQ(Run({"list"}, {}, {{"TAVIX_SETTINGS_SERVER", "127.0.0.1:nonsense"}}).status, 2);
}

TEST_F(GlobalOptions, AddressThatIsNoneIsAnsweredWithWhatWasMeant) {
  const std::string hint = "' is not an endpoint: ";
  ExpectRun({"-s", "/run/x.sock", "list"}, 2, "",
            "tavix-settings: --server: '/run/x.sock" + hint + "a path? unix:/run/x.sock\n");
  ExpectRun({"-s", "http://camera:80/", "list"}, 2, "",
            "tavix-settings: --server: 'http://camera:80/" + hint + "no URL: HOST:PORT\n");
  ExpectRun({"-s", "::1:7211", "list"}, 2, "", "tavix-settings: --server: '::1:7211" + hint + "a port? [::1]:7211\n");
  EXPECT_EQ(Run({"list"}, {}, {{"TAVIX_SETTINGS_SERVER", "/run/x.sock"}}).errors,
            "tavix-settings: TAVIX_SETTINGS_SERVER: '/run/x.sock" + hint + "a path? unix:/run/x.sock\n");
}

TEST_F(GlobalOptions, SilentServerIsExitStatus3AfterTheTimeout) {
  const ListeningSocket silent;
  const std::string address = "127.0.0.1:" + std::to_string(silent.GetPort());
  ExpectRun({"-t", "1", "-s", address, "list"}, 3, "", "tavix-settings: no answer from " + address + " within 1 s\n");
}

TEST_F(GlobalOptions, LostConnectionIsExitStatus3) {
  const OneAnswer server("data\n[A]\nx=");
  ExpectRun({"-s", server.GetAddress(), "get", "A"}, 3, "",
            "tavix-settings: the connection to " + server.GetAddress() + " was lost\n");
}

TEST_F(GlobalOptions, ServerOfAnotherKindIsToldApart) {
  const OneAnswer server("HTTP/1.1 400 Bad Request\r\n\r\n");
  ExpectRun({"-s", server.GetAddress(), "get", "A"}, 3, "",
            "tavix-settings: " + server.GetAddress() +
                " does not speak the settings protocol: expected \"data\", got \"HTTP/1.1 400 Bad Request\\r\"\n");
}

TEST_F(GlobalOptions, EmptyStoreIsNoOtherStore) {
  const std::string hint = "hint: try 'tavix-settings set --help'\n";
  ExpectRun({"--local", "", "set", "[A]b=1"}, 2, "",
            "tavix-settings: --local: expected a file's name, found an empty text\n" + hint);
  ExpectRun({"set", "[A]b=1", "--local="}, 2, "",
            "tavix-settings: --local: expected a file's name, found an empty text\n" + hint);
  ExpectRun({"--server", "", "set", "[A]b=1"}, 2, "",
            "tavix-settings: --server: expected an address, found an empty text\n" + hint);
  ExpectRun({"--local", "-", "set", "[A]b=1"}, 2, "",
            "tavix-settings: --local: '-' is no file; one of that name is './-'\n" + hint);
  EXPECT_EQ(Ask("A"), "");
}

TEST_F(GlobalOptions, LineThatIsTooLongForTheServerIsNotSent) {
  const Outcome outcome = Run({"set", "A", "b", "-"}, std::string(17'000'000, 'x'));
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.errors,
            "tavix-settings: Key \"b\" of group \"A\" can't be sent: its line of 17000002 bytes is longer than the "
            "16777216 allowed\n");
}

TEST_F(GlobalOptions, RequestThatIsTooLongForTheServerIsToldOf) {
  std::string text = "[A]\n";
  for (int i = 0; i < 5; ++i) text += "k" + std::to_string(i) + "=" + std::string(16'000'000, 'x') + "\n";
  const std::string name(5000, 'x');
  for (const std::string& tooMuch : {text, "[" + name + "]\nk=v\n", "[A]\n" + name + "=v\n"}) {
    const Outcome outcome = Run({"import", "-"}, tooMuch);
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.errors, "tavix-settings: the connection to " + _address +
                                  " was lost\nhint: a server takes names of 4 KiB, lines of 16 MiB and requests of "
                                  "64 MiB, unless its --max-name, --max-line and --max-request say otherwise\n");
  }
}

TEST_F(GlobalOptions, WriteThatTheServerDidNotCarryOutIsExitStatus7) {
  const OneAnswer server("data\n[A]\nx=old\n.\n");
  ExpectRun({"-s", server.GetAddress(), "set", "[A]x=new"}, 7, "",
            "tavix-settings: not applied: [A]x is 'old', not 'new'\n");
}

TEST_F(GlobalOptions, ServerMayListenOnAUnixSocket) {
  const std::string path = _directory.Path("socket");
  const osa::Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener.Get(), 4), 0);
  std::thread server([&] {
    for (int i = 0; i < 2; ++i) {
      const osa::Descriptor peer(accept(listener.Get(), nullptr, nullptr));
      ReceiveOnce(peer);
      Send(peer, "data\n[A]\nx=1\n.\n");
    }
  });
  ExpectRun({"-s", "unix:" + path, "get", "[A]x"}, 0, "1\n", "");
  EXPECT_EQ(Run({"get", "[A]x"}, {}, {{"TAVIX_SETTINGS_SERVER", "unix:" + path}}).output, "1\n");
  server.join();
  ExpectRun({"-s", "unix:gone", "list"}, 3, "",
            std::string("tavix-settings: no server at unix:gone: No such file or directory\n") + kHint);
}

TEST_F(GlobalOptions, UnixSocketWhoseQueueIsFullIsAwaited) {
  const std::string path = _directory.Path("socket");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  const auto* const name = reinterpret_cast<const sockaddr*>(&address);
  const osa::Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(listener.Get(), name, sizeof address), 0);
  ASSERT_EQ(listen(listener.Get(), 0), 0);
  const osa::Descriptor waiting(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(connect(waiting.Get(), name, sizeof address), 0);
  ExpectRun({"-s", "unix:" + path, "-t", "0.05", "list"}, 3, "",
            "tavix-settings: the server at unix:" + path +
                " took no connection within 0.05 s\nhint: it is busy with others, or stopped\n");
  CommandProcess patient(_directory.GetPath(), WithProgram({"-s", "unix:" + path, "get", "[A]x"}));
  const osa::Descriptor first(accept(listener.Get(), nullptr, nullptr));
  const osa::Descriptor peer(accept(listener.Get(), nullptr, nullptr));
  ReceiveOnce(peer);
  Send(peer, "data\n[A]\nx=1\n.\n");
  EXPECT_EQ(patient.AwaitEnd(), 0);
}

TEST_F(GlobalOptions, VerboseShowsTheProtocol) {
  ExpectRun(
      {"-v", "get", "[Network/Eth0]dhcp"}, 0, "true\n",
      "> get delimited\n> Network/Eth0\n> .\n< data\n< [Network/Eth0]\n< address=192.168.0.90\n< dhcp=true\n< .\n");
}

TEST_F(GlobalOptions, OutputThatNobodyReadsEndsQuietly) {
  std::string text;
  for (int i = 0; i < 3000; ++i) text += "[Many/" + std::to_string(i) + "]\nx=" + std::string(100, 'v') + "\n";
  Merge(text);
  const Outcome outcome = RunInShell("\"$0\" \"$@\" show; echo $? >&2");
  EXPECT_EQ(outcome.errors, "0\n");
  const Outcome cut = RunInShell("\"$0\" \"$@\" show | head -n 1");
  EXPECT_EQ(cut.output, "[Device/Identity]\n");
  EXPECT_EQ(cut.errors, "");
  const Outcome ignoring = RunInShell("trap '' PIPE; \"$0\" \"$@\" show | head -n 1");
  EXPECT_EQ(ignoring.errors, "");
  CommandProcess process(_directory.GetPath(), WithProgram({"show"}), Environment(), CommandProcess::Streams::kUnread);
  EXPECT_EQ(process.AwaitEnd(), 128 + SIGPIPE);
  EXPECT_EQ(process.GetErrors(), "");
}

TEST_F(GlobalOptions, OutputThatCanNotBeWrittenIsNoSuccess) {
  const Outcome outcome = RunInShell("\"$0\" \"$@\" show >/dev/full");
  EXPECT_EQ(outcome.status, 7);
  EXPECT_EQ(outcome.errors, "tavix-settings: standard output can't be written: No space left on device\n");
}

TEST_F(GlobalOptions, ColorsAreForcedOrForbidden) {
  const char colored[] = "\x1b[1;36m[Network/Wlan0]\x1b[0m\n\x1b[33menabled\x1b[0m=false\n";
  ExpectRun({"--color", "always", "show", "Network/Wlan0"}, 0, colored, "");
  ExpectRun({"--color=never", "show", "Network/Wlan0"}, 0, "[Network/Wlan0]\nenabled=false\n", "");
  ExpectRun({"show", "Network/Wlan0"}, 0, "[Network/Wlan0]\nenabled=false\n", "");
}

}  // namespace tavix::test
