// A sanitizer needs memory of its own, and ends the process when there is none.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <fstream>
#include <string>

#include "tests/programs/server/Daemon.h"

namespace tavix::test {

namespace {

constexpr size_t kMegabyte = 1024 * 1024;

std::string Repeated(int count, const std::string& text) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

// How much memory the daemon's data has, in bytes.
size_t DataSize(const Daemon& daemon) {
  std::ifstream status("/proc/" + std::to_string(daemon.GetId()) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmData:", 0) == 0) return 1024 * std::stoul(line.substr(7));
  }
  ADD_FAILURE() << "no VmData";
  return 0;
}

// Changes how much it may have; returns how much that was.
rlimit AllowData(const Daemon& daemon, rlim_t bytes) {
  rlimit before{};
  EXPECT_EQ(prlimit(daemon.GetId(), RLIMIT_DATA, nullptr, &before), 0);
  const rlimit limit{bytes, before.rlim_max};
  EXPECT_EQ(prlimit(daemon.GetId(), RLIMIT_DATA, &limit, nullptr), 0);
  return before;
}

}  // namespace

TEST(LittleMemory, RequestThatItDoesNotSufficeForEndsItsConnectionOnly) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--loops", "1"});
  ProtocolClient bystander(daemon.GetPort());
  bystander.AwaitHandled();
  const rlimit before = AllowData(daemon, DataSize(daemon) + 2 * kMegabyte);
  ProtocolClient client(daemon.GetPort());
  client.TrySend("merge nopersist\n" + Repeated(8, "[A]\nk=" + std::string(900'000, 'v') + "\n"));
  EXPECT_EQ(client.ReadToEnd(), "");
  AllowData(daemon, before.rlim_cur);
  bystander.AwaitHandled();
  EXPECT_EQ(Converse(daemon.GetPort(), "get delimited\n.\n"), "data\n.\n");
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_EQ(CountOf("connection cut: out of memory, bytes kept ", daemon.GetErrors()), 1u) << daemon.GetErrors();
}

}  // namespace tavix::test

#endif
