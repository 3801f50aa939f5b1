#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/CapturedLog.h"

namespace tavix::test {

inline constexpr char kSavedAgain[] = "WARNING UserSettings: 'user.ini' is saved again";

inline bool SaysThatItIsTriedAgain(const std::string& message) {
  return message.find("; it is tried again") != std::string::npos;
}

// What is logged from a failure on until all is saved again, without the attempts that failed in between: how many
// there are is a matter of time. What the call expects is not seen, as with LogOf.
template <class Call>
std::vector<std::string> LogOfFailure(Call call) {
  const CapturedLog log;
  call();
  std::vector<std::string> messages;
  Eventually([&] {
    messages = log.GetMessages();
    return !messages.empty() && messages.back() == kSavedAgain;
  });
  messages.erase(std::remove_if(messages.begin(), messages.end(), SaysThatItIsTriedAgain), messages.end());
  return messages;
}

}  // namespace tavix::test
