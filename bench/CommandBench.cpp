// What the command costs beside a large store: its time, its memory, and how soon the first line is out.

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "bench/Benches.h"
#include "bench/Daemon.h"
#include "bench/Exchange.h"
#include "bench/Loopback.h"
#include "bench/SampleSettings.h"
#include "bench/Timing.h"
#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

constexpr size_t kBytes = 21 * 1000 * 1000;
constexpr char kTime[] = "command-time-21mb";
constexpr char kMemory[] = "command-memory-21mb";
constexpr char kFirstLine[] = "command-first-line-21mb";
constexpr char kFirstByte[] = "reply's first byte";

using Words = std::vector<std::string>;

// A command that runs to its end, or is killed with this object.
class Command {
 public:
  // output: its standard output; standard error goes nowhere.
  Command(Words words, int output) {
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    const osa::Descriptor nowhere = Checked(open("/dev/null", O_RDWR | O_CLOEXEC), "open /dev/null");
    _id = fork();
    if (_id < 0) throw osa::Exception("Failed to start a process: %s", std::strerror(errno));
    if (_id > 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGPIPE, SIG_DFL);
    dup2(nowhere.Get(), STDIN_FILENO);
    dup2(output >= 0 ? output : nowhere.Get(), STDOUT_FILENO);
    dup2(nowhere.Get(), STDERR_FILENO);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  ~Command() {
    if (_hasEnded) return;
    kill(_id, SIGKILL);
    waitpid(_id, nullptr, 0);
  }

  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  // Waits for its end. Returns its peak memory in MiB.
  double AwaitEnd() {
    int status = 0;
    rusage used{};
    wait4(_id, &status, 0, &used);
    _hasEnded = true;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw osa::Exception("The command failed: %d", status);
    return static_cast<double>(used.ru_maxrss) / 1024;
  }

 private:
  pid_t _id = -1;
  bool _hasEnded = false;
};

Words OnDaemon(const Recorder& recorder, int port, const Words& words) {
  Words all{recorder.GetSetup().command, "--timeout", "60", "--server", "127.0.0.1:" + std::to_string(port)};
  all.insert(all.end(), words.begin(), words.end());
  return all;
}

void Measure(Recorder& recorder, const std::string& variant, const Words& words) {
  const double start = NowInMicroseconds();
  const double memory = Command(words, -1).AwaitEnd();
  recorder.Add({kTime, kOurs, variant}, kMilliseconds, (NowInMicroseconds() - start) / 1000);
  recorder.Add({kMemory, kOurs, variant}, kMebibytes, memory);
}

// Stands between a command and the daemon, and notes when the first bytes come by.
class Relay {
 public:
  // Runs the command until its first bytes are out.
  void Run(const Recorder& recorder, int port, const Words& words) {
    const LoopbackListener listener;
    auto [reader, writer] = MakePipe();
    _start = NowInMicroseconds();
    const Command command(OnDaemon(recorder, listener.GetPort(), words), writer.Get());
    _client = listener.Accept();
    _daemon = ConnectToLoopback(port);
    pollfd streams[] = {{_client.Get(), POLLIN, 0}, {_daemon.Get(), POLLIN, 0}, {reader.Get(), POLLIN, 0}};
    while (poll(streams, 3, -1) > 0 && (streams[2].revents & POLLIN) == 0) {
      if (streams[0].revents != 0) Pass(_client, _daemon);
      if (streams[1].revents == 0) continue;
      if (_firstByte == 0) _firstByte = GetTime();
      Pass(_daemon, _client);
    }
    _firstLine = GetTime();
  }

  double GetFirstByte() const { return _firstByte; }
  double GetFirstLine() const { return _firstLine; }

 private:
  // In milliseconds since the start.
  double GetTime() const { return (NowInMicroseconds() - _start) / 1000; }

  static void Pass(const osa::Descriptor& from, const osa::Descriptor& to) {
    char bytes[16 * 1024];
    const ssize_t count = read(from.Get(), bytes, sizeof bytes);
    if (count <= 0) throw osa::Exception("The connection was lost");
    WriteAll(to, {bytes, static_cast<size_t>(count)});
  }

  double _start = 0;
  double _firstByte = 0;
  double _firstLine = 0;
  osa::Descriptor _client;
  osa::Descriptor _daemon;
};

void MeasureFirstLine(Recorder& recorder, int port, const std::string& variant, const Words& words) {
  Relay relay;
  relay.Run(recorder, port, words);
  recorder.Add({kFirstLine, kOurs, variant}, kMilliseconds, relay.GetFirstLine());
  recorder.Add({kFirstLine, kFloor, std::string(kFirstByte) + ", " + variant}, kMilliseconds, relay.GetFirstByte());
}

struct Row {
  const char* variant;
  Words words;
  bool isStream;
};

const Row kRows[] = {{"list", {"list"}, true},
                     {"show", {"show"}, true},
                     {"show --json", {"show", "--json"}, true},
                     {"export", {"export"}, true},
                     {"search", {"search", "value"}, true},
                     {"status", {"status"}, false},
                     {"ping", {"ping"}, false}};

void MeasureCommands(Recorder& recorder) {
  const int groups = GroupsInBytes(kBytes, kKeysOfGroup);
  const std::string file = WriteSettingsFile(recorder.GetSetup().directory, "command.ini", groups);
  const Daemon daemon(recorder.GetSetup().server, {"--defaults", file});
  for (const auto& [variant, words, isStream] : kRows) {
    Measure(recorder, variant, OnDaemon(recorder, daemon.GetPort(), words));
    if (isStream) MeasureFirstLine(recorder, daemon.GetPort(), variant, words);
  }
  Measure(recorder, "completion",
          {recorder.GetSetup().command, "__complete", "--server", "127.0.0.1:" + std::to_string(daemon.GetPort()),
           "list", "Net/Interface/G"});
  const Daemon empty(recorder.GetSetup().server, {});
  Measure(recorder, "import", OnDaemon(recorder, empty.GetPort(), {"import", file}));
  Measure(recorder, "import, again", OnDaemon(recorder, empty.GetPort(), {"import", file}));
  Measure(recorder, "import --replace --user",
          OnDaemon(recorder, empty.GetPort(), {"import", file, "--replace", "--user"}));
  Measure(recorder, "--local set", {recorder.GetSetup().command, "--local", file, "set", "[New]key=1"});
}

}  // namespace

void AddCommandBenches(Suite& suite) {
  suite.Add({kTime, kMemory, kFirstLine}, MeasureCommands, Bench::Frequency::kFewRounds);
  for (const Row& row : kRows) {
    if (row.isStream)
      suite.Compare({kFirstLine, kOurs, row.variant},
                    {kFirstLine, kFloor, std::string(kFirstByte) + ", " + row.variant}, 1.1);
  }
}

}  // namespace tavix::bench
