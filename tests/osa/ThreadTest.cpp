#include "tavix/osa/Thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <future>
#include <string>
#include <utility>

#include "tavix/osa/Exception.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/ElapsedTime.h"

namespace {

using tavix::osa::Exception;
using tavix::osa::Runnable;
using tavix::osa::Thread;
using tavix::test::BackgroundCall;
using tavix::test::CapturedOutput;
using tavix::test::MillisecondsOf;

constexpr unsigned int kStackSize = 32768;

class FunctionRunnable : public Runnable {
 public:
  explicit FunctionRunnable(std::function<void()> function) : _function(std::move(function)) {}

  void Run() override { _function(); }

 private:
  std::function<void()> _function;
};

void RunToEnd(std::function<void()> function, const char* name = "TavixSettings") {
  FunctionRunnable runnable(std::move(function));
  Thread thread(name, &runnable, kStackSize, 0);
  thread.Run();
  thread.Join();
}

TEST(Thread, RunsItsRunnableOnceOnAThreadOfItsOwn) {
  int runs = 0;
  pthread_t id = pthread_self();
  RunToEnd([&] {
    ++runs;
    id = pthread_self();
  });
  EXPECT_EQ(runs, 1);
  EXPECT_FALSE(pthread_equal(id, pthread_self()));
}

TEST(Thread, StartsNothingUntilRun) {
  std::atomic<bool> ran{false};
  FunctionRunnable runnable([&] { ran = true; });
  {
    Thread thread("never", &runnable, kStackSize, 0);
    thread.Join();
  }
  EXPECT_FALSE(ran);
}

TEST(Thread, JoinWaitsForTheEnd) {
  std::promise<void> mayEnd;
  bool ended = false;
  FunctionRunnable runnable([&] {
    mayEnd.get_future().wait();
    ended = true;
  });
  Thread thread("LocalConnection", &runnable, kStackSize, 0);
  thread.Run();
  BackgroundCall joiner([&] { thread.Join(); });
  joiner.AwaitBlocked();
  EXPECT_FALSE(joiner.HasEnded());
  mayEnd.set_value();
  joiner.Join();
  EXPECT_TRUE(ended);
}

TEST(Thread, ASecondJoinReturnsAtOnce) {
  FunctionRunnable runnable([] {});
  Thread thread("TavixSettings", &runnable, kStackSize, 0);
  thread.Run();
  thread.Join();
  EXPECT_NO_THROW(thread.Join());
}

TEST(Thread, ASecondRunThrows) {
  int runs = 0;
  FunctionRunnable runnable([&] { ++runs; });
  Thread thread("TavixSettings", &runnable, kStackSize, 0);
  thread.Run();
  EXPECT_THAT([&] { thread.Run(); }, testing::ThrowsMessage<Exception>(testing::HasSubstr("TavixSettings")));
  thread.Join();
  EXPECT_THROW(thread.Run(), Exception);
  EXPECT_EQ(runs, 1);
}

TEST(Thread, TheDestructorJoinsAThreadThatStillRuns) {
  std::promise<void> mayEnd;
  bool ended = false;
  FunctionRunnable runnable([&] {
    mayEnd.get_future().wait();
    ended = true;
  });
  {
    Thread thread("TavixSettings", &runnable, kStackSize, 0);
    thread.Run();
    mayEnd.set_value();
  }
  EXPECT_TRUE(ended);
}

TEST(Thread, JoiningItselfThrows) {
  std::promise<void> started;
  std::string error;
  Thread* self = nullptr;
  FunctionRunnable runnable([&] {
    started.get_future().wait();
    try {
      self->Join();
    } catch (const Exception& exception) {
      error = exception.what();
    }
  });
  Thread thread("TavixSettings", &runnable, kStackSize, 0);
  self = &thread;
  thread.Run();
  started.set_value();
  thread.Join();
  EXPECT_THAT(error, testing::StartsWith("Failed to join thread 'TavixSettings': "));
}

TEST(Thread, AMissingRunnableIsRefused) {
  EXPECT_THAT([] { Thread("TavixSettings", nullptr, kStackSize, 0); },
              testing::ThrowsMessage<Exception>("Thread 'TavixSettings': the runnable was NULL"));
}

TEST(Thread, OnlyTheCreatorsPriorityIsSupported) {
  FunctionRunnable runnable([] {});
  EXPECT_THAT([&] { Thread("TavixSettings", &runnable, kStackSize, 1); },
              testing::ThrowsMessage<Exception>(testing::HasSubstr("priority 1")));
}

TEST(Thread, TellsTheSystemItsName) {
  for (const auto& [name, shown] :
       {std::pair("TavixSettings", "TavixSettings"), std::pair("LocalConnection", "LocalConnection"),
        std::pair("longer than the kernel keeps", "longer than the")}) {
    char found[64] = "";
    RunToEnd([&] { pthread_getname_np(pthread_self(), found, sizeof found); }, name);
    EXPECT_STREQ(found, shown);
  }
}

TEST(Thread, TheNameMayBeNull) {
  bool ran = false;
  RunToEnd([&] { ran = true; }, nullptr);
  EXPECT_TRUE(ran);
}

// Leaves the process a gibibyte of address space to grow into.
class ScarceAddressSpace {
 public:
  ScarceAddressSpace() {
    getrlimit(RLIMIT_AS, &_before);
    size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t most = pages * static_cast<size_t>(sysconf(_SC_PAGESIZE)) + (size_t{1} << 30);
    const rlimit scarce{most, _before.rlim_max};
    setrlimit(RLIMIT_AS, &scarce);
  }
  ~ScarceAddressSpace() { setrlimit(RLIMIT_AS, &_before); }

 private:
  rlimit _before{};
};

TEST(Thread, ASystemThatCannotStartOneMoreIsReported) {
  bool ran = false;
  FunctionRunnable runnable([&] { ran = true; });
  Thread thread("huge", &runnable, 0xFFFFFFFFu, 0);
  const ScarceAddressSpace scarce;
  EXPECT_THAT([&] { thread.Run(); },
              testing::ThrowsMessage<Exception>(testing::StartsWith("Failed to start thread 'huge': ")));
  EXPECT_NO_THROW(thread.Join());
  EXPECT_FALSE(ran);
}

TEST(Thread, AnExceptionThatLeavesRunIsReportedAndEndsThatThreadAlone) {
  Thread::SetExceptionReporter(nullptr);
  CapturedOutput output(STDERR_FILENO);
  RunToEnd([] { throw Exception("it %s", "broke"); }, "LocalConnection");
  EXPECT_EQ(output.Finish(), "thread 'LocalConnection' ended by an exception: it broke\n");
}

TEST(Thread, AnExceptionOfAnyTypeIsReported) {
  Thread::SetExceptionReporter(nullptr);
  CapturedOutput output(STDERR_FILENO);
  RunToEnd([] { throw 42; });
  EXPECT_EQ(output.Finish(), "thread 'TavixSettings' ended by an exception: unknown\n");
}

TEST(Thread, AnExceptionWithALongTextIsReportedInOneLine) {
  Thread::SetExceptionReporter(nullptr);
  CapturedOutput output(STDERR_FILENO);
  RunToEnd([] { throw Exception("%s", std::string(5000, 'x').c_str()); });
  EXPECT_THAT(output.Finish(), testing::StartsWith("thread 'TavixSettings' ended by an exception: xxx"));
}

std::string g_reported;

TEST(Thread, AHostMayTakeTheReports) {
  Thread::SetExceptionReporter([](const char* name, const char* what) { g_reported = std::string(name) + "|" + what; });
  RunToEnd([] { throw std::runtime_error("it broke"); });
  Thread::SetExceptionReporter(nullptr);
  EXPECT_EQ(g_reported, "TavixSettings|it broke");
}

sigset_t CurrentMask() {
  sigset_t mask;
  sigemptyset(&mask);
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return mask;
}

TEST(Thread, AsynchronousSignalsAreBlockedOnIt) {
  sigset_t mask;
  RunToEnd([&] { mask = CurrentMask(); });
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGALRM, SIGCHLD, SIGUSR1, SIGUSR2, SIGPIPE, SIGRTMIN})
    EXPECT_EQ(sigismember(&mask, signal), 1) << strsignal(signal);
}

TEST(Thread, FaultsAreNotBlockedOnIt) {
  sigset_t mask;
  RunToEnd([&] { mask = CurrentMask(); });
  for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
    EXPECT_EQ(sigismember(&mask, signal), 0) << strsignal(signal);
}

TEST(Thread, TheCreatorsSignalMaskStaysAsItWas) {
  sigset_t wanted;
  sigemptyset(&wanted);
  sigaddset(&wanted, SIGUSR2);
  pthread_sigmask(SIG_SETMASK, &wanted, nullptr);
  RunToEnd([] {});
  const sigset_t after = CurrentMask();
  EXPECT_EQ(sigismember(&after, SIGUSR2), 1);
  EXPECT_EQ(sigismember(&after, SIGUSR1), 0);
  EXPECT_EQ(sigismember(&after, SIGTERM), 0);
}

// Uses the whole stack that was asked for while "call" runs on top.
__attribute__((noinline)) int WithAFullStack(const std::function<void()>& call) {
  volatile char used[kStackSize];
  for (size_t i = 0; i < sizeof used; i += 16) used[i] = static_cast<char>(i);
  call();
  int sum = 0;
  for (size_t i = 0; i < sizeof used; i += 16) sum += used[i];
  return sum;
}

void ResolveAName() {
  addrinfo* found = nullptr;
  EXPECT_EQ(getaddrinfo("localhost", "7211", nullptr, &found), 0);
  if (found) freeaddrinfo(found);
}

void ThrowAndCatch() {
  EXPECT_THROW(throw Exception("%s", "thrown for the first time in this process"), Exception);
}

void WriteToTheSystemLog() {
  syslog(LOG_USER | LOG_DEBUG, "%s", "a line from a test of the stack");
}

TEST(Thread, TheStackAskedForIsTheRunnablesToUse) {
  bool ran = false;
  RunToEnd([&] { WithAFullStack([&] { ran = true; }); });
  EXPECT_TRUE(ran);
}

TEST(Thread, TheStackEndsInAGuard) {
  size_t guard = 0;
  RunToEnd([&] {
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getguardsize(&attributes, &guard);
    pthread_attr_destroy(&attributes);
  });
  EXPECT_GT(guard, 0u);
}

TEST(Thread, ANameCanBeResolvedOnAFullStack) {
  RunToEnd([] { WithAFullStack(ResolveAName); });
}

TEST(Thread, AnExceptionCanBeThrownOnAFullStack) {
  RunToEnd([] { WithAFullStack(ThrowAndCatch); });
}

TEST(Thread, TheSystemLogCanBeUsedOnAFullStack) {
  RunToEnd([] { WithAFullStack(WriteToTheSystemLog); });
}

TEST(Thread, AnExceptionCanLeaveRunFromAFullStack) {
  Thread::SetExceptionReporter(nullptr);
  CapturedOutput output(STDERR_FILENO);
  RunToEnd([] { WithAFullStack([] { throw Exception("from the depth"); }); });
  EXPECT_THAT(output.Finish(), testing::HasSubstr("from the depth"));
}

TEST(Thread, SleepsAtLeastTheTimeGiven) {
  for (const unsigned int time : {0u, 1u, 20u, 60u, 1001u})
    EXPECT_GE(MillisecondsOf([&] { Thread::CurrentThread::Sleep(time); }), static_cast<long>(time));
}

TEST(Thread, ASignalDoesNotShortenASleep) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  long slept = 0;
  BackgroundCall sleeper([&] { slept = MillisecondsOf([] { Thread::CurrentThread::Sleep(300); }); });
  for (int sent = 0; sent < 5; ++sent) {
    sleeper.AwaitBlocked();
    pthread_kill(sleeper.GetHandle(), SIGUSR1);
  }
  sleeper.Join();
  EXPECT_GE(slept, 300);
}

TEST(Runnable, StopDoesNothingUnlessOverridden) {
  bool ran = false;
  FunctionRunnable runnable([&] { ran = true; });
  runnable.Stop();
  EXPECT_FALSE(ran);
  runnable.Run();
  EXPECT_TRUE(ran);
}

}  // namespace
