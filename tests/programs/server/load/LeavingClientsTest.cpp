#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/programs/server/load/LoadedDaemon.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/OtherClients.h"
#include "tests/support/RunningLoad.h"

namespace tavix::test {

// They asked for hundreds of gigabytes.
TEST(LeavingClients, AreNoMoreWorkOnceTheyHaveLeft) {
  LoadSize size;
  size.storeGroups = 20'000;
  const Load leaving = MakeLeavingLoad(size);
  LoadedDaemon daemon(size, leaving);
  OtherClients others(daemon.GetPort());
  RunningLoad load(leaving, daemon.GetPort());
  ASSERT_TRUE(Eventually([&] { return load.CountDone() == 8; }));
  load.Stop();
  const size_t before = others.CountAnswered();
  EXPECT_TRUE(Eventually([&] { return others.CountAnswered() >= before + 10; }));
  others.Stop();
  EXPECT_EQ(others.GetFailures(), "");
  EXPECT_NO_THROW(daemon.Get().AwaitIdle());
}

}  // namespace tavix::test
