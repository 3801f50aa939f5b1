#pragma once

namespace tavix::daemon {

// SIGTERM and SIGINT as a descriptor that becomes readable.
class StopSignals {
 public:
  // Holds the signals back from now on, for this thread and those that it creates; one that comes early is not lost.
  static void Block();

  // After Block. Throws osa::Exception when the system has no descriptor left.
  StopSignals();
  ~StopSignals();

  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  int GetDescriptor() const { return _descriptor; }

 private:
  int _descriptor;
};

}  // namespace tavix::daemon
