#pragma once

#include <pthread.h>

#include <string>

#include "tavix/osa/Export.h"
#include "tavix/osa/Runnable.h"

namespace tavix::osa {

// One joinable thread that runs a Runnable once.
//
// Threads: one at a time calls its operations; SetExceptionReporter and CurrentThread any.
// Stack:   the size given is what the runnable's own code may use. Added here are 256 KiB for code of the user's that
//          it calls, such as callbacks; what the C library and the exception machinery need (name resolution, a first
//          throw, the system log); and a guard page. It is mapped: memory is taken by what is used of it alone.
// Signals: asynchronous signals are blocked on the thread; the host's handlers run on the host's own threads.
// Errors:  an exception that leaves Run is reported with the thread's name and ends that thread alone, not the process.
// Owns:    neither name nor runnable; the runnable outlives the thread.
class TAVIX_DAEMON_EXPORT Thread {
 public:
  // Starts nothing. stackSize: bytes. priority: 0 is the creator's, the only one supported; another throws.
  Thread(const char* name, Runnable* runnable, unsigned int stackSize, signed char priority);

  // Joins a thread that still runs.
  ~Thread();

  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Starts the thread. A second call throws, and so does a system that can't start one more.
  void Run();

  // Returns when the thread has ended; at once when it was never started or was joined before.
  // Joining from the thread itself throws.
  void Join();

  class TAVIX_LOCAL CurrentThread {
   public:
    // Sleeps that many milliseconds; a signal does not shorten it.
    static void Sleep(unsigned int milliseconds);
  };

  // Called with a thread's name and an exception's text when one leaves Run. Never null: the default writes to
  // standard error. The logger installs itself here when it is first used.
  using ExceptionReporter = void (*)(const char* threadName, const char* what);
  static void SetExceptionReporter(ExceptionReporter reporter);

 private:
  static void* Main(void* thread);

  std::string _name;
  Runnable* _runnable;
  unsigned int _stackSize;
  pthread_t _handle{};
  bool _started = false;
  bool _joined = false;
};

}  // namespace tavix::osa
