#pragma once

#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tavix/osa/Descriptor.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tests/support/Environment.h"
#include "tests/support/ListeningSocket.h"
#include "tests/support/ServedStore.h"

namespace tavix::test {

// A settings server that answers every request from a store which the test can change at any moment of a session, and a
// client of it over TCP. Nobody is told of changes, unless the test itself sends a notice.
//
// Threads: the test's own, and one for each connection.
class AnsweringServer {
 public:
  using Client = settings::TavixSettingsClient;

  // Is given each whole request before it is carried out, on the connection's thread, but for the empty readings that
  // waiting is made of. What it throws ends the connection.
  using Hook = std::function<void(AnsweringServer&, const std::string& request)>;

  explicit AnsweringServer(const std::string& settings, Hook beforeAnswer = {},
                           Client::OperationMode mode = Client::MultiThreaded);
  ~AnsweringServer();

  AnsweringServer(const AnsweringServer&) = delete;
  AnsweringServer& operator=(const AnsweringServer&) = delete;

  // Connected, unless the test says otherwise.
  Client* GetClient() { return _client.get(); }

  // All so far, without those empty readings.
  std::vector<std::string> GetRequests() const;

  // Both to the newest connection.
  void Send(const std::string& text) const;
  void Disconnect() const;

  // Waits until the client has a connection. Whoever asks first after a lost one is told of the loss; this is about
  // what comes then.
  void AwaitConnection() const;

  // Waits until what was sent so far, either way, has arrived: requests keep their order, and replies and notices do.
  void AwaitArrival() const;

  ServedStore served;

 private:
  class RequestReader;

  void AcceptAll();
  void Note(const std::string& request);
  void AnswerAll(const osa::Descriptor& peer);

  const Hook _beforeAnswer;
  const ListeningSocket _listener;
  const ScopedEnvironment _noLocalFile;
  const ScopedEnvironment _endpoint;

  mutable std::mutex _mutex;  // guards what follows
  std::vector<std::string> _requests;
  std::list<osa::Descriptor> _peers;
  std::list<std::thread> _threads;

  std::thread _acceptor;
  std::unique_ptr<Client> _client;
};

}  // namespace tavix::test
