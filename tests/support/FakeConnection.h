#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "tavix/osa/PipeStreamPair.h"
#include "tavix/settings/client/TavixSettingsConnection.h"

namespace tavix::test {

// A connection to the test itself, over two pipes, for what no peer on a socket can bring about.
class FakeConnection : public settings::client::TavixSettingsConnection {
 public:
  // connect: what an attempt to connect does first; may throw.
  explicit FakeConnection(std::function<void()> connect = {}) : _connect(std::move(connect)) {}

  void EnsureConnection(int) override {
    if (_connect) _connect();
    if (IsInOrder()) return;
    _pIstream = replies.GetIstream();
    _pOstream = requests.GetOstream();
  }
  void CloseConnection() override {}
  void BreakConnection() noexcept override { AbortConnection(); }
  void AbortConnection() noexcept override {
    requests.ClosePipe();
    replies.ClosePipe();
  }
  void LimitWrites(unsigned int) noexcept override {}

  osa::PipeStreamPair requests;
  osa::PipeStreamPair replies;

 private:
  const std::function<void()> _connect;
};

}  // namespace tavix::test
