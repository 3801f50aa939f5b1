#include "programs/server/system/MemorySize.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

namespace {

constexpr uint64_t kMachine = 1'000'000'000;

// A machine with files of a kernel.
class Memory : public testing::Test {
 protected:
  void Write(const std::string& path, const std::string& text) const {
    std::filesystem::create_directories(std::filesystem::path(_root.Path(path)).parent_path());
    _root.Write(path, text);
  }

  uint64_t Find() const { return daemon::MemorySize(_root.GetPath(), kMachine).GetBytes(); }

  const TemporaryDirectory _root;
};

}  // namespace

TEST_F(Memory, IsTheMachinesWithoutControlGroups) {
  EXPECT_EQ(Find(), kMachine);
}

TEST_F(Memory, IsTheLimitOfTheOwnControlGroup) {
  Write("proc/self/cgroup", "0::/system/daemon\n");
  Write("sys/fs/cgroup/system/daemon/memory.max", "64000000\n");
  EXPECT_EQ(Find(), 64'000'000u);
}

TEST_F(Memory, IsTheLeastLimitOfTheGroupsAbove) {
  Write("proc/self/cgroup", "0::/system/daemon\n");
  Write("sys/fs/cgroup/system/daemon/memory.max", "64000000\n");
  Write("sys/fs/cgroup/system/memory.max", "32000000\n");
  EXPECT_EQ(Find(), 32'000'000u);
  Write("sys/fs/cgroup/memory.max", "16000000\n");
  EXPECT_EQ(Find(), 16'000'000u);
}

TEST_F(Memory, IsNotTheLimitOfAnotherGroup) {
  Write("proc/self/cgroup", "0::/system/daemon\n");
  Write("sys/fs/cgroup/system/other/memory.max", "32000000\n");
  Write("sys/fs/cgroup/system/daemon/below/memory.max", "32000000\n");
  EXPECT_EQ(Find(), kMachine);
}

TEST_F(Memory, LimitAboveTheMachinesMemoryDoesNotCount) {
  Write("proc/self/cgroup", "0::/daemon\n");
  Write("sys/fs/cgroup/daemon/memory.max", "2000000000\n");
  EXPECT_EQ(Find(), kMachine);
}

TEST_F(Memory, TextThatIsNoNumberLimitsNothing) {
  Write("proc/self/cgroup", "0::/daemon\nnonsense\n1:\n");
  for (const char* text : {"max\n", "", "\n", "12 MB\n", "-1\n", "99999999999999999999\n"}) {
    Write("sys/fs/cgroup/daemon/memory.max", text);
    EXPECT_EQ(Find(), kMachine) << text;
  }
}

TEST_F(Memory, IsTheLimitOfAGroupOfVersionOne) {
  Write("proc/self/cgroup", "7:cpu,cpuacct:/busy\n5:memory:/system/daemon\n1:name=init:/\n");
  Write("sys/fs/cgroup/memory/system/daemon/memory.limit_in_bytes", "9223372036854771712\n");
  EXPECT_EQ(Find(), kMachine);
  Write("sys/fs/cgroup/memory/system/memory.limit_in_bytes", "48000000\n");
  EXPECT_EQ(Find(), 48'000'000u);
}

TEST_F(Memory, IsTheLeastOfBothVersions) {
  Write("proc/self/cgroup", "5:memory:/one\n0::/two\n");
  Write("sys/fs/cgroup/memory/one/memory.limit_in_bytes", "48000000\n");
  Write("sys/fs/cgroup/unified/two/memory.max", "40000000\n");
  EXPECT_EQ(Find(), 40'000'000u);
}

// Its own group is what is mounted, under the name that the host has for it or outside of it.
TEST_F(Memory, IsTheLimitOfTheContainer) {
  for (const char* group : {"0::/\n", "0::/docker/abc\n", "0::/../other\n"}) {
    Write("proc/self/cgroup", group);
    Write("sys/fs/cgroup/memory.max", "20000000\n");
    EXPECT_EQ(Find(), 20'000'000u) << group;
  }
}

TEST_F(Memory, OfThisMachineIsThere) {
  EXPECT_GT(daemon::MemorySize().GetBytes(), 0u);
  EXPECT_LT(daemon::MemorySize().GetBytes(), UINT64_MAX);
}

}  // namespace tavix::test
