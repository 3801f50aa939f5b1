#pragma once

#include <sys/types.h>

#include <functional>
#include <vector>

#include "bench/Figure.h"
#include "bench/Recorder.h"

namespace tavix::bench {

// A child process that is killed, by its id, with this object or with its parent.
class OwnProcess {
 public:
  // work: what the child does before it exits; an exception ends it with status 1.
  explicit OwnProcess(const std::function<void()>& work);
  ~OwnProcess();

  OwnProcess(const OwnProcess&) = delete;
  OwnProcess& operator=(const OwnProcess&) = delete;

  pid_t GetId() const { return _id; }

  // Waits until the child has ended by itself; whether it ended well.
  [[nodiscard]] bool EndedWell();

 private:
  pid_t _id;
  bool _ended = false;
};

// The figures that "measure" reports in a process of its own. Throws osa::Exception when that fails.
std::vector<Figure> MeasureInOwnProcess(const Setup& setup, const std::function<void(Recorder&)>& measure);

}  // namespace tavix::bench
