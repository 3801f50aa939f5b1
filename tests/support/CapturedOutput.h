#pragma once

#include <string>

#include "tavix/osa/Descriptor.h"

namespace tavix::test {

// Collects what the process writes to a descriptor, standard error for example, until it is finished or destroyed.
class CapturedOutput {
 public:
  explicit CapturedOutput(int descriptor);
  ~CapturedOutput();

  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;

  // What was written so far.
  std::string GetText() const;

  // Gives the descriptor back, and returns what was written.
  std::string Finish();

 private:
  const int _descriptor;
  osa::Descriptor _before;
  osa::Descriptor _file;
};

}  // namespace tavix::test
