#include "tavix/core/SideBySide.h"

#include <exception>
#include <thread>

#include "tavix/osa/Exception.h"
#include "tavix/osa/Runnable.h"
#include "tavix/osa/Thread.h"

namespace tavix::core {

namespace {

constexpr unsigned int kStackSize = 64 * 1024;

// Work that keeps its exception for the thread that waits for it.
class Work : public osa::Runnable {
 public:
  explicit Work(const std::function<void()>& work) : _work(work) {}

  void Run() override {
    try {
      _work();
    } catch (...) {
      _failure = std::current_exception();
    }
  }

  void PassOnFailure() const {
    if (_failure) std::rethrow_exception(_failure);
  }

 private:
  const std::function<void()>& _work;
  std::exception_ptr _failure;
};

bool Starts(osa::Thread& thread) {
  try {
    thread.Run();
    return true;
  } catch (const osa::Exception&) {
    return false;
  }
}

}  // namespace

void RunSideBySide(const std::function<void()>& first, const std::function<void()>& second) {
  Work here(first);
  Work there(second);
  osa::Thread thread("SideBySide", &there, kStackSize, 0);
  const bool isBeside = std::thread::hardware_concurrency() > 1 && Starts(thread);
  here.Run();
  if (isBeside) {
    thread.Join();
  } else {
    there.Run();
  }
  here.PassOnFailure();
  there.PassOnFailure();
}

}  // namespace tavix::core
