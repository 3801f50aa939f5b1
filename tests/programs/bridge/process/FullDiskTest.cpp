#ifdef TAVIX_HAS_MQTT

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/programs/bridge/process/MirroredDaemon.h"
#include "tests/support/FileFaults.h"

// A disk that fills while the bridge runs.
namespace tavix::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;

// The bridge's state lies alone on a disk of its own.
class BridgeOnFullDisk : public testing::Test {
 protected:
  BridgeOnFullDisk() {
    const FileFaults::Environment loaded(faults, TAVIX_FILE_FAULTS);
    mirrored.bridge.Kill();
    mirrored.bridge.Start();
    mirrored.bridge.AwaitInSync();
  }

  MirroredDaemon mirrored;
  FileFaults faults{mirrored.directory.GetPath()};
};

}  // namespace

TEST_F(BridgeOnFullDisk, AppliesNothingUntilThereIsRoomAgain) {
  faults.Fail(ENOSPC);
  mirrored.Want(1, {{"Net/Eth0", {{"mtu", "1500"}}}});
  const json status = mirrored.bridge.AwaitStatus(
      [](const json& now) { return now["lastError"].get<std::string>().find("the state") != std::string::npos; });
  EXPECT_THAT(status["lastError"].get<std::string>(), HasSubstr("full"));
  EXPECT_EQ(status["state"], "not in sync");
  mirrored.AwaitMessage("status", "state", "state-failed");

  mirrored.daemon.Set("[State/Lens]\nzoom=2\n");
  const auto before = faults.CountCalls();
  mirrored.bridge.AwaitStatus([&](const json&) { return faults.CountCalls() > before; });  // it tries again
  EXPECT_EQ(mirrored.daemon.Get("Net/Eth0", "mtu"), "");
  EXPECT_EQ(mirrored.centre->GetStore().count("fleet/cam/reported/State/Lens"), 0u);
  EXPECT_EQ(CountOf("nothing is mirrored until that works", mirrored.bridge.process->GetErrors()), 1u);

  faults.Succeed();
  mirrored.daemon.Await("Net/Eth0", "mtu", "1500");
  mirrored.AwaitMessage("reported/State/Lens", "values", {{"zoom", "2"}});
  mirrored.AwaitMessage("result/doc", "state", "applied");
  mirrored.AwaitMessage("status", "state", "mirroring");
  mirrored.bridge.AwaitInSync();
}

}  // namespace tavix::test

#endif
