#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <functional>
#include <optional>
#include <string>

#include "tavix/settings/client/ProtocolClient.h"
#include "tests/support/Patience.h"
#include "tests/support/ScriptedServer.h"

namespace tavix::test {

// Short enough for a test that waits for it to pass.
constexpr std::chrono::milliseconds kShort{50};

// A client of a server whose every byte the test decides. Waits are as patient as the test's own.
class ProtocolClientTest : public testing::Test {
 protected:
  using Client = settings::client::ProtocolClient;
  using Exception = settings::client::ProtocolException;
  using Reason = Exception::Reason;
  using Groups = Client::Groups;

  static Client::Options Patient() {
    Client::Options options;
    options.timeouts.silence = kPatience;
    return options;
  }

  // For a client that is connected: a machine may stand still while it connects.
  static Client::Timeouts Impatient() { return {kShort, std::nullopt}; }

  // Answers the first connection.
  void Serve(std::function<void(ServerEnd&)> script) {
    _threads.emplace(_server, [script = std::move(script)](ServerEnd& peer, size_t number) {
      if (number == 0) script(peer);
    });
  }

  // Answers each request of the first connection, which ends with a line ".", by the next text, then waits for the end.
  void Answer(std::vector<std::string> replies) {
    Serve([replies = std::move(replies)](ServerEnd& peer) {
      for (const std::string& reply : replies) {
        peer.ReadThrough();
        peer.Send(reply);
      }
      peer.ReadToEnd();
    });
  }

  std::string GetAddress() const { return "127.0.0.1:" + std::to_string(_server.GetPort()); }

  // What the call throws; fails the test when it throws nothing.
  static Exception Catch(const std::function<void()>& call) {
    try {
      call();
    } catch (const Exception& exception) {
      return exception;
    }
    ADD_FAILURE() << "it threw nothing";
    return {Reason::kUsage, "nothing", "", false};
  }

  // Waits until the client has something to receive, the end of its connection included.
  static bool AwaitReadable(const Client& client) {
    pollfd wait{client.GetDescriptor(), POLLIN, 0};
    return poll(&wait, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) > 0;
  }

  // Waits until the client knows that nothing more will come.
  static bool AwaitEnd(const Client& client) {
    pollfd wait{client.GetDescriptor(), POLLRDHUP, 0};
    return poll(&wait, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) > 0;
  }

  static Reason ReasonOf(const std::function<void()>& call) { return Catch(call).GetReason(); }

  ScriptedServer _server;

 private:
  std::optional<ServerThreads> _threads;
};

// A client whose server falls silent, ends, or speaks something else.
class ProtocolClientFailure : public ProtocolClientTest {};

}  // namespace tavix::test
