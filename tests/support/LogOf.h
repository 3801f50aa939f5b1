#pragma once

#include <string>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/CapturedLog.h"

namespace tavix::test {

// What is logged until the call has returned, and then until there are that many messages. What the call expects goes
// to standard output and so is not seen: expect afterwards.
template <class Call>
std::vector<std::string> LogOf(Call call, size_t count = 0) {
  const CapturedLog log;
  call();
  Eventually([&] { return log.GetMessages().size() >= count; });
  return log.GetMessages();
}

// The errors among messages: what is logged of connecting again, which may already be under way, is none.
inline std::vector<std::string> ErrorsIn(const std::vector<std::string>& messages) {
  std::vector<std::string> errors;
  for (const std::string& message : messages) {
    if (message.rfind("ERROR ", 0) == 0) errors.push_back(message);
  }
  return errors;
}

}  // namespace tavix::test
