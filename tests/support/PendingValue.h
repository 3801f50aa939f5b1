#pragma once

#include <string>

#include "tavix/settings/TavixSettingsClient.h"
#include "tests/support/BackgroundCall.h"

namespace tavix::test {

// A call that asks for one value, under way on a thread of its own.
class PendingValue {
 public:
  // client: outlives this.
  explicit PendingValue(const settings::TavixSettingsClient& client, const std::string& locator = "[A]x")
      : _call([this, &client, locator] { _value = client.GetValue(locator); }) {}

  void AwaitBlocked() const { _call.AwaitBlocked(); }
  bool HasEnded() const { return _call.HasEnded(); }

  // Waits for the value and returns it, or throws what the call threw.
  std::string Join() {
    _call.Join();
    return _value;
  }

 private:
  std::string _value;
  BackgroundCall _call;
};

}  // namespace tavix::test
