#pragma once

#include <string>
#include <vector>

#include "tests/support/CapturedOutput.h"

namespace tavix::test {

// Collects every message that loggers write, traces included. Afterwards the process's log is silent.
class CapturedLog {
 public:
  CapturedLog();
  ~CapturedLog();

  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  // The messages so far without their times: "WARNING MsgDispatcher: Invalid command: bogus".
  std::vector<std::string> GetMessages() const;

 private:
  CapturedOutput _output;
};

}  // namespace tavix::test
