#include "tavix/osa/Thread.h"

#include <cxxabi.h>
#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>

#include "tavix/osa/Exception.h"

namespace tavix::osa {

namespace {

// Measured with a painted stack: getaddrinfo 20 KiB, a process's first throw 16 KiB, syslog 10 KiB; they may nest, and
// static thread-local storage lives on the stack too.
constexpr size_t kPlatformStack = 64 * 1024;

// A regular expression of the standard library takes some 300 bytes for each character that it looks at.
constexpr size_t kCallbackStack = 256 * 1024;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kSanitizerStack = 1536 * 1024;
#else
constexpr size_t kSanitizerStack = 0;
#endif

void WriteToStandardError(const char* threadName, const char* what) {
  char line[512];
  const int length = std::snprintf(line, sizeof line, "thread '%s' ended by an exception: %s\n", threadName, what);
  if (length > 0) {
    const size_t size = std::min(static_cast<size_t>(length), sizeof line - 1);
    if (::write(STDERR_FILENO, line, size) < 0) return;
  }
}

std::atomic<Thread::ExceptionReporter> g_exceptionReporter{WriteToStandardError};

size_t StackSizeFor(unsigned int wanted) {
  const long page = sysconf(_SC_PAGESIZE);
  const size_t unit = page > 0 ? static_cast<size_t>(page) : 4096;
  const size_t size =
      wanted + kCallbackStack + kPlatformStack + kSanitizerStack + static_cast<size_t>(PTHREAD_STACK_MIN);
  return (size + unit - 1) / unit * unit;
}

// Everything but the signals that a faulty instruction raises on its own thread.
sigset_t AsynchronousSignals() {
  sigset_t signals;
  sigfillset(&signals);
  for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) sigdelset(&signals, fault);
  return signals;
}

}  // namespace

Thread::Thread(const char* name, Runnable* runnable, unsigned int stackSize, signed char priority)
    : _name(name ? name : ""), _runnable(runnable), _stackSize(stackSize) {
  if (!runnable) throw Exception("Thread '%s': the runnable was NULL", _name.c_str());
  if (priority != 0) throw Exception("Thread '%s': priority %d is not supported, only 0", _name.c_str(), priority);
}

Thread::~Thread() {
  if (_started && !_joined) pthread_join(_handle, nullptr);
}

void Thread::Run() {
  if (_started) throw Exception("Thread '%s' was started before", _name.c_str());
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, StackSizeFor(_stackSize));
  const sigset_t blocked = AsynchronousSignals();
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const int error = pthread_create(&_handle, &attributes, &Thread::Main, this);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&attributes);
  if (error) throw Exception("Failed to start thread '%s': %s", _name.c_str(), std::strerror(error));
  _started = true;
}

void Thread::Join() {
  if (!_started || _joined) return;
  const bool isSelf = pthread_equal(pthread_self(), _handle) != 0;
  const int error = isSelf ? EDEADLK : pthread_join(_handle, nullptr);
  if (error) throw Exception("Failed to join thread '%s': %s", _name.c_str(), std::strerror(error));
  _joined = true;
}

void* Thread::Main(void* thread) {
  auto* self = static_cast<Thread*>(thread);
  pthread_setname_np(pthread_self(), self->_name.substr(0, 15).c_str());  // the kernel keeps 15 characters
  try {
    self->_runnable->Run();
  } catch (const abi::__forced_unwind&) {
    throw;  // a cancelled thread must unwind to its end
  } catch (const std::exception& exception) {
    g_exceptionReporter.load()(self->_name.c_str(), exception.what());
  } catch (...) {
    g_exceptionReporter.load()(self->_name.c_str(), "unknown");
  }
  return nullptr;
}

void Thread::CurrentThread::Sleep(unsigned int milliseconds) {
  timespec end{};
  clock_gettime(CLOCK_MONOTONIC, &end);
  end.tv_sec += static_cast<time_t>(milliseconds / 1000);
  end.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
  if (end.tv_nsec >= 1000000000L) {
    end.tv_nsec -= 1000000000L;
    ++end.tv_sec;
  }
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) continue;
}

void Thread::SetExceptionReporter(ExceptionReporter reporter) {
  g_exceptionReporter.store(reporter ? reporter : WriteToStandardError);
}

}  // namespace tavix::osa
