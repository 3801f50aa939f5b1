#pragma once

#include <csignal>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "programs/bridge/engines/EtcdTransfers.h"
#include "tests/support/Patience.h"
#include "tests/support/ReservedPort.h"
#include "tests/support/ServiceProcess.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

// A cluster of etcd: members in processes of their own, on ports of 127.0.0.1 that nobody else gets, also while they do
// not run.
//
// Threads: the test's main thread.
// Errors:  std::runtime_error, with what a member logged, when it does not start.
class EtcdCluster {
 public:
  // folder: for all its files; outlives the cluster. clientWords: of each member's command line, for TLS.
  EtcdCluster(const TemporaryDirectory& folder, std::size_t size, const std::string& scheme = "http",
              const std::vector<std::string>& clientWords = {})
      : _folder(folder), _scheme(scheme), _clientWords(clientWords), _members(size) {
    while (!TryStartAll()) ++_round;
  }

  unsigned short GetPort(std::size_t member) const { return _members[member].client->Get(); }

  void Kill(std::size_t member) {
    _members[member].process->Signal(SIGKILL);
    _members[member].process->AwaitEnd();
  }

  // With what it had kept. Returns once it serves.
  void Restart(std::size_t member) {
    Start(member);
    if (!IsReady(member)) throw std::runtime_error(_members[member].process->GetOutput());
  }

  // Posts "body" to that path of a member, past all engines.
  std::string Post(const std::string& path, const std::string& body, std::size_t member = 0) const {
    bridge::EtcdSettings settings;
    settings.patience = kPatience;
    const bridge::Credentials none;
    bridge::EtcdTransfers transfers(settings, MakeAddress("http", GetPort(member)), none);
    std::optional<bridge::EtcdTransfers::Answer> answer;
    transfers.Post(path, body, [&](const bridge::EtcdTransfers::Answer& given) { answer = given; });
    while (!answer) transfers.Step(-1);
    if (answer->status != 200) throw std::runtime_error(path + ": " + answer->error + answer->body);
    return answer->body;
  }

 private:
  struct Member {
    std::unique_ptr<ReservedPort> client;
    std::unique_ptr<ReservedPort> peer;
    std::unique_ptr<ServiceProcess> process;
  };

  // False when somebody else took one of the ports meanwhile.
  bool TryStartAll() {
    for (Member& member : _members)
      member = {std::make_unique<ReservedPort>(), std::make_unique<ReservedPort>(), nullptr};
    for (std::size_t member = 0; member < _members.size(); ++member) Start(member);
    for (std::size_t member = 0; member < _members.size(); ++member) {
      if (IsReady(member)) continue;
      const std::string output = _members[member].process->GetOutput();
      if (output.find("in use") == std::string::npos) throw std::runtime_error(output);
      return false;
    }
    return true;
  }

  void Start(std::size_t number) {
    Member& member = _members[number];
    const std::string name = "m" + std::to_string(number) + "-" + std::to_string(_round);
    std::string members;
    for (std::size_t other = 0; other < _members.size(); ++other) {
      members += (members.empty() ? "m" : ",m") + std::to_string(other) + "-" + std::to_string(_round) + "=" +
                 MakeAddress("http", _members[other].peer->Get());
    }
    const std::string client = MakeAddress(_scheme, member.client->Get());
    const std::string peer = MakeAddress("http", member.peer->Get());
    // Kept is what the kernel has: a disk that syncs slowly would fail requests, or have another leader elected. By a
    // variable, of which older versions only warn.
    std::vector<std::string> words{"env",
                                   "ETCD_UNSAFE_NO_FSYNC=true",
                                   "etcd",
                                   "--name",
                                   name,
                                   "--data-dir",
                                   _folder.Path(name),
                                   "--listen-client-urls",
                                   client,
                                   "--advertise-client-urls",
                                   client,
                                   "--listen-peer-urls",
                                   peer,
                                   "--initial-advertise-peer-urls",
                                   peer,
                                   "--initial-cluster",
                                   members,
                                   "--initial-cluster-token",
                                   _folder.GetPath()};
    words.insert(words.end(), _clientWords.begin(), _clientWords.end());
    member.process = std::make_unique<ServiceProcess>(_folder.GetPath(), words, _folder.Path(name + ".log"));
  }

  bool IsReady(std::size_t member) { return _members[member].process->AwaitOutput("ready to serve client requests"); }

  static std::string MakeAddress(const std::string& scheme, unsigned short port) {
    return scheme + "://127.0.0.1:" + std::to_string(port);
  }

  const TemporaryDirectory& _folder;
  const std::string _scheme;
  const std::vector<std::string> _clientWords;
  std::vector<Member> _members;
  int _round = 0;
};

}  // namespace tavix::test
