#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

#include "tests/support/Watchdog.h"

namespace {

// A shell's background job ignores some signals, and so would each program that a test starts.
void TakeSignals() {
  for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM, SIGUSR1, SIGUSR2, SIGCHLD})
    std::signal(number, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  TakeSignals();
  testing::InitGoogleTest(&argc, argv);
  // What a developer's shell may have for the installed daemon.
  for (const char* variable : {"TAVIX_SETTINGS_SERVER", "TAVIX_SETTINGS_LOCALFILE"}) unsetenv(variable);
  testing::UnitTest::GetInstance()->listeners().Append(
      new tavix::test::Watchdog(tavix::test::Watchdog::LimitFromEnvironment()));
  return RUN_ALL_TESTS();
}
