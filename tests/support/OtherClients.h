#pragma once

#include <chrono>
#include <cstddef>
#include <list>
#include <string>

#include "tests/support/PacedCalls.h"

namespace tavix::test {

// The well-behaved clients beside a load: each gets one group of the store, or changes a group of its own by
// test-and-merge, on a connection of its own, and wants the right reply, soon. There are two of each kind, connected in
// turn with others', so that each loop of a daemon with two has some.
class OtherClients {
 public:
  // The daemon has the store of Loads.h. pause: of each client between two requests.
  explicit OtherClients(unsigned short port, std::chrono::milliseconds pause = kUsualPause);

  OtherClients(const OtherClients&) = delete;
  OtherClients& operator=(const OtherClients&) = delete;

  // How often the one of them was answered that was answered least.
  size_t CountAnswered() const;

  // To be called before the figures are read. Once.
  void Stop();

  CallFigures GetGets() const { return _getFigures; }
  CallFigures GetTestAndMerges() const { return _changeFigures; }

  // What went wrong before Stop; empty when all replies were right.
  std::string GetFailures() const;

 private:
  std::list<PacedCalls> _gets;
  std::list<PacedCalls> _changes;
  CallFigures _getFigures;
  CallFigures _changeFigures;
};

}  // namespace tavix::test
