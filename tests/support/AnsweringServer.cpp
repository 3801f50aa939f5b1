#include "tests/support/AnsweringServer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <exception>
#include <set>
#include <utility>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tests/support/BackgroundCall.h"

namespace tavix::test {

namespace {

constexpr char kEmptyReading[] = "get delimited\n.\n";

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.rfind(prefix, 0) == 0;
}

bool ReadNothing(const settings::TavixSettingsClient& client) {
  core::IniFile nothing;
  return client.GetSettings(std::set<std::string>(), nothing);
}

}  // namespace

// Takes the bytes of a connection apart into requests.
class AnsweringServer::RequestReader {
 public:
  explicit RequestReader(const osa::Descriptor& peer) : _peer(peer) {}

  // The next request; empty at the end of the connection and when the client quits.
  std::string Next() {
    std::string request = ReadLine();
    if (request == "quit\n") return std::string();
    for (int parts = StartsWith(request, "test-and-merge") || StartsWith(request, "overwrite") ? 2 : 1; parts > 0;) {
      const std::string line = ReadLine();
      if (line.empty()) return std::string();
      if (line == ".\n") --parts;
      request += line;
    }
    return request;
  }

 private:
  // With its line feed; empty at the end.
  std::string ReadLine() {
    size_t end = 0;
    while ((end = _received.find('\n')) == std::string::npos) {
      const std::string more = ReceiveOnce(_peer);
      if (more.empty()) return std::string();
      _received += more;
    }
    const std::string line = _received.substr(0, end + 1);
    _received.erase(0, end + 1);
    return line;
  }

  const osa::Descriptor& _peer;
  std::string _received;  // and not yet asked for
};

AnsweringServer::AnsweringServer(const std::string& settings, Hook beforeAnswer, Client::OperationMode mode)
    : served({settings}),
      _beforeAnswer(std::move(beforeAnswer)),
      _noLocalFile("TAVIX_SETTINGS_LOCALFILE", nullptr),
      _endpoint("TAVIX_SETTINGS_SERVER", ("127.0.0.1:" + std::to_string(_listener.GetPort())).c_str()),
      _acceptor(&AnsweringServer::AcceptAll, this),
      _client(std::make_unique<Client>(mode)) {
  AwaitConnection();
}

AnsweringServer::~AnsweringServer() {
  _client.reset();
  shutdown(_listener.GetDescriptor(), SHUT_RDWR);
  _acceptor.join();
  for (const osa::Descriptor& peer : _peers) shutdown(peer.Get(), SHUT_RDWR);
  for (std::thread& thread : _threads) thread.join();
}

std::vector<std::string> AnsweringServer::GetRequests() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _requests;
}

void AnsweringServer::Send(const std::string& text) const {
  std::lock_guard<std::mutex> lock(_mutex);
  EXPECT_TRUE(test::Send(_peers.back(), text)) << "the connection is gone";
}

void AnsweringServer::Disconnect() const {
  std::lock_guard<std::mutex> lock(_mutex);
  shutdown(_peers.back().Get(), SHUT_RDWR);
}

void AnsweringServer::AwaitConnection() const {
  EXPECT_TRUE(Eventually([this] {
    try {
      return ReadNothing(*_client);
    } catch (const osa::Exception&) {
      return false;
    }
  }));
}

void AnsweringServer::AwaitArrival() const {
  EXPECT_TRUE(ReadNothing(*_client));
}

void AnsweringServer::AcceptAll() {
  try {
    while (true) {
      osa::Descriptor accepted = _listener.Accept();
      std::lock_guard<std::mutex> lock(_mutex);
      const osa::Descriptor& peer = _peers.emplace_back(std::move(accepted));
      _threads.emplace_back(&AnsweringServer::AnswerAll, this, std::cref(peer));
    }
  } catch (const std::exception&) {  // nobody listens any more
  }
}

void AnsweringServer::Note(const std::string& request) {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _requests.push_back(request);
  }
  if (_beforeAnswer) _beforeAnswer(*this, request);
}

void AnsweringServer::AnswerAll(const osa::Descriptor& peer) {
  RequestReader reader(peer);
  try {
    for (std::string request; !(request = reader.Next()).empty();) {
      if (request != kEmptyReading) Note(request);
      if (!test::Send(peer, served.Serve(request))) break;
    }
  } catch (const std::exception&) {  // the test wants no more of this connection
  }
  shutdown(peer.Get(), SHUT_RDWR);
}

}  // namespace tavix::test
