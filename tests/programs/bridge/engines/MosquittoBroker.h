#pragma once

#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/ReservedPort.h"
#include "tests/support/ServiceProcess.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

// A broker of MQTT in a process of its own, on a port of 127.0.0.1 that nobody else gets, also while it does not run.
//
// Threads: the test's main thread.
// Errors:  std::runtime_error, with what it logged, when it does not start.
class MosquittoBroker {
 public:
  // lines: of its configuration, beside those for the port and what a test always wants: everybody may do everything,
  // unless the lines say otherwise. folder: for all its files; outlives the broker. words: of its command line; without
  // them it does not log each message.
  explicit MosquittoBroker(const TemporaryDirectory& folder, const std::string& lines = "allow_anonymous true\n",
                           const std::vector<std::string>& words = {"-v"})
      : _folder(folder), _lines(lines), _words(words) {
    while (!TryStart()) {
    }
  }

  unsigned short GetPort() const { return _port->Get(); }
  pid_t GetId() const { return _process->GetId(); }
  std::string GetLog() const { return _process->GetOutput(); }

  void Kill() {
    _process->Signal(SIGKILL);
    _process->AwaitEnd();
  }

  // On the same port. With what it had kept, if the lines ask for that.
  void Restart() {
    Kill();
    if (!Start()) throw std::runtime_error(_process->GetOutput());
  }

 private:
  // False when somebody else took the port meanwhile.
  bool TryStart() {
    _port = std::make_unique<ReservedPort>();
    if (Start()) return true;
    if (_process->GetOutput().find("in use") == std::string::npos) throw std::runtime_error(_process->GetOutput());
    return false;
  }

  bool Start() {
    // It would give up root's rights, and with them those to the test's folder.
    const std::string head = "listener " + std::to_string(GetPort()) + " 127.0.0.1\nuser root\nlog_dest stderr\n" +
                             "max_queued_messages 0\nmax_packet_size 268435455\n";
    const std::string file = _folder.Write("mosquitto.conf", head + _lines);
    std::vector<std::string> words{"mosquitto", "-c", file};
    words.insert(words.end(), _words.begin(), _words.end());
    _process = std::make_unique<ServiceProcess>(_folder.GetPath(), words, _folder.Path("mosquitto.log"));
    return _process->AwaitOutput(" running");
  }

  const TemporaryDirectory& _folder;
  const std::string _lines;
  const std::vector<std::string> _words;
  std::unique_ptr<ReservedPort> _port;
  std::unique_ptr<ServiceProcess> _process;
};

}  // namespace tavix::test
