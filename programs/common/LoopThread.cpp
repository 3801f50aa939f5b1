#include "programs/common/LoopThread.h"

#include <utility>

namespace tavix::programs {

namespace {

constexpr unsigned int kStackSize = 128 * 1024;

}  // namespace

LoopThread::LoopThread(const char* name, std::function<void()> loop)
    : _loop(std::move(loop)), _thread(name, _loop.AsRunnable(), kStackSize, 0) {
  _thread.Run();
}

LoopThread::~LoopThread() {
  Join();
}

}  // namespace tavix::programs
