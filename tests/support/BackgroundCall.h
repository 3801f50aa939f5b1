#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>

namespace tavix::test {

// A function that runs on a thread of its own, for tests of what blocks and what wakes it.
class BackgroundCall {
 public:
  explicit BackgroundCall(std::function<void()> call);

  // Joins; an exception that nobody asked for by Join is dropped.
  ~BackgroundCall();

  BackgroundCall(const BackgroundCall&) = delete;
  BackgroundCall& operator=(const BackgroundCall&) = delete;

  // Returns when the call has stopped in the kernel, waiting for something, or has ended.
  void AwaitBlocked() const;

  bool HasEnded() const { return _ended; }

  // Waits for the call's end and throws what the call threw.
  void Join();

  // For signals to it.
  pthread_t GetHandle() { return _thread.native_handle(); }

 private:
  std::promise<pid_t> _started;
  pid_t _id = 0;  // the kernel's number of the thread
  std::atomic<bool> _ended{false};
  std::exception_ptr _exception;  // read after the join
  std::thread _thread;
};

// Asks again and again until the condition holds; false after kPatience. For what has no event to wait for.
bool Eventually(const std::function<bool()>& condition);

}  // namespace tavix::test
