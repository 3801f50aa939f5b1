// What observers of connections may do when they are called.

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <utility>

#include "tavix/osa/Exception.h"
#include "tavix/settings/client/IConnectionObserver.h"
#include "tavix/settings/client/TavixSettingsClientImplMultiThreaded.h"
#include "tavix/settings/client/TavixSettingsTcpConnection.h"
#include "tests/support/ScriptedServer.h"

namespace {

using tavix::osa::Exception;
using tavix::settings::IConnectionObserver;
using tavix::settings::client::TavixSettingsClientImplMultiThreaded;
using tavix::settings::client::TavixSettingsTcpConnection;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;

// Calls a function at the first connection.
class OnceConnected : public IConnectionObserver {
 public:
  explicit OnceConnected(std::function<void()> call) : _call(std::move(call)) {}

  void OnConnected() override {
    if (auto call = std::exchange(_call, nullptr)) call();
  }

 private:
  std::function<void()> _call;
};

// A client that has lost its first connection, so that observers which were added before see another one.
struct Reconnected {
  void Reconnect() {
    server.Accept().Close();
    peer = std::make_unique<ServerEnd>(server.Accept());
  }

  ScriptedServer server;
  TavixSettingsClientImplMultiThreaded client{std::make_unique<TavixSettingsTcpConnection>().release()};
  std::unique_ptr<ServerEnd> peer;
};

TEST(TavixSettingsClientImplMultiThreaded, AnObserverThatRemovesItselfGetsAnException) {
  std::promise<bool> isRefused;
  Reconnected reconnected;
  OnceConnected observer([&] {
    try {
      reconnected.client.RemoveConnectionObserver(&observer);
      isRefused.set_value(false);
    } catch (const Exception&) {
      isRefused.set_value(true);
    }
  });
  reconnected.client.AddConnectionObserver(&observer);
  reconnected.Reconnect();
  EXPECT_TRUE(isRefused.get_future().get());
  EXPECT_NO_THROW(reconnected.client.RemoveConnectionObserver(&observer)) << "from outside";
}

TEST(TavixSettingsClientImplMultiThreaded, WhatOneObserverThrowsKeepsNoOtherFromBeingCalled) {
  std::promise<void> isCalled;
  Reconnected reconnected;
  std::array<OnceConnected, 2> observers{OnceConnected([] { throw std::runtime_error("the first one's"); }),
                                         OnceConnected([&] { isCalled.set_value(); })};
  for (OnceConnected& observer : observers) reconnected.client.AddConnectionObserver(&observer);
  reconnected.Reconnect();
  isCalled.get_future().get();
  for (OnceConnected& observer : observers) reconnected.client.RemoveConnectionObserver(&observer);
}

}  // namespace
