#pragma once

#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tavix/settings/client/ProtocolClient.h"
#include "tests/programs/bridge/control/ControlClient.h"
#include "tests/programs/server/Daemon.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/DocumentText.h"
#include "tests/support/Patience.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

// A bridge as a process, in a directory of its own.
//
// Threads: the test's main thread.
class BridgeProcess {
 public:
  // program: its path. directory: outlives this, and has the runtime and the state. text: of the configuration, behind
  // the section [bridge].
  BridgeProcess(std::string program, const TemporaryDirectory& directory, const std::string& server,
                const std::string& text, const std::string& name = "cam")
      : _program(std::move(program)), _directory(directory), _name(name) {
    const std::string& path = directory.GetPath();
    _config = directory.Write(name + ".conf", "[bridge]\nname=" + name + "\nserver=" + server + "\nstate=" + path +
                                                  "/" + name + ".db\nruntime=" + path + "\nmask=[*]secret\n" + text);
  }

  void Start(const std::vector<std::string>& arguments = {}, const ProcessLimits& limits = {}) {
    std::vector<std::string> words{"--config", _config};
    words.insert(words.end(), arguments.begin(), arguments.end());
    process.reset();
    process = std::make_unique<DaemonProcess>(_program, _directory.GetPath(), words, limits);
  }

  // As by kill -9. What it logged until then.
  std::string Kill() const {
    process->Stop(SIGKILL);
    return process->GetErrors();
  }

  std::string GetSocketPath() const { return _directory.Path("bridge-" + _name + ".sock"); }

  // What a request is answered. The bridge has to be listening.
  nlohmann::json Ask(const std::string& request) const {
    const ControlClient client(GetSocketPath());
    client.Send(request + "\n");
    return nlohmann::json::parse(client.ReadToEnd());
  }

  // Asks for the status until that holds, and returns it.
  nlohmann::json AwaitStatus(const std::function<bool(const nlohmann::json& status)>& holds) const {
    std::string last;
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < end) {
      try {
        const nlohmann::json status = Ask("status");
        if (holds(status)) return status;
        last = status.dump();
      } catch (const std::exception& exception) {
        last = exception.what();  // it does not listen yet
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    throw std::runtime_error("The bridge came not so far: " + last + "\n" + process->GetErrors());
  }

  nlohmann::json AwaitInSync() const {
    return AwaitStatus([](const nlohmann::json& status) { return status["state"] == "in sync"; });
  }

  std::unique_ptr<DaemonProcess> process;

 private:
  const std::string _program;
  const TemporaryDirectory& _directory;
  const std::string _name;
  std::string _config;
};

// Limits under which a test does not wait.
constexpr char kQuickLimits[] = "[limits]\nspread=0\nreconnect-min=1\nreconnect-max=1\nrate=1000\n";

// A daemon on a unix socket, so that one that is started again has the same address, and a client of it.
class BridgedDaemon {
 public:
  BridgedDaemon(const TemporaryDirectory& directory, const std::string& name)
      : address("unix:" + directory.Path(name + ".sock")), _directory(directory), _name(name) {
    Start();
  }

  void Start() {
    process.reset();
    process = std::make_unique<DaemonProcess>(
        ServerProgram(), _directory.GetPath(),
        std::vector<std::string>{"--defaults-dir", "none", "--restricted-dir", "none", "--stop-timeout",
                                 std::to_string(kPatience.count() / 2), "--listen", address, "--user-settings",
                                 _name + ".ini"});
    process->AwaitAddresses();
    settings::client::ProtocolOptions options;
    options.address = address;
    options.timeouts.silence = kPatience;
    _client = std::make_unique<settings::client::ProtocolClient>(options);
    _client->Subscribe({"*"});
  }

  void Set(const std::string& text) { SetInTurn({text}); }

  // The same of a change that is not saved: it waits for no disk.
  void SetVolatile(const std::string& text) {
    _client->Merge(DocumentOf(text), true);
    _client->Flush();
  }

  // A change of each, without waiting between them.
  void SetInTurn(const std::vector<std::string>& texts) {
    for (const std::string& text : texts) _client->Merge(DocumentOf(text));
    _client->Flush();
  }

  // Until the value is that; empty: it is not there.
  void Await(const std::string& group, const std::string& key, const std::string& value) {
    while (Get(group, key) != value) {
      if (!_client->AwaitNotice(kPatience))
        throw std::runtime_error("[" + group + "]" + key + " did not become " + value);
    }
  }

  std::string Get(const std::string& group, const std::string& key) {
    const core::IniFile settings = _client->Get({group});
    return settings.HasValue(group, key) ? settings.GetValue(group, key) : "";
  }

  core::IniFile Read(const std::string& pattern) { return _client->Get({pattern}); }

  // The group is gone, its defaults included.
  void Remove(const std::string& group) {
    _client->Overwrite({group}, core::IniFile());
    _client->Flush();
  }

  // Whether it was done, and then it is on the disk.
  bool Amend(const settings::Amendment& amendment) { return _client->Amend(amendment); }

  const std::string address;
  std::unique_ptr<DaemonProcess> process;

 private:
  const TemporaryDirectory& _directory;
  const std::string _name;
  std::unique_ptr<settings::client::ProtocolClient> _client;
};

}  // namespace tavix::test
