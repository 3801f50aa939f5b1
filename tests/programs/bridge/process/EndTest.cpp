#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "tests/programs/bridge/process/BridgeProcess.h"
#include "tests/support/FileFaults.h"

// The end of a bridge whose name server does not answer.
namespace tavix::test {

namespace {

using testing::HasSubstr;

class BridgeWithoutNames : public testing::Test {
 protected:
  void ExpectEnd(const std::string& program, const std::string& sections) {
    BridgeProcess bridge(program, directory, "unix:" + directory.Path("nobody"),
                         sections + "[map net]\npattern=Net/*\ndirection=both\n");
    faults.HoldLookups("silent.example");
    {
      const FileFaults::Environment loaded(faults, TAVIX_FILE_FAULTS);
      bridge.Start();
    }
    faults.AwaitHeldLookup();
    EXPECT_EQ(bridge.Ask("status")["link"], "connecting");
    EXPECT_EQ(bridge.process->Stop(SIGTERM), 0);
    EXPECT_THAT(bridge.process->GetErrors(), HasSubstr("The bridge ends without its link"));
    EXPECT_FALSE(directory.Has("bridge-cam.sock"));
  }

  TemporaryDirectory directory;
  FileFaults faults{directory.GetPath()};
};

}  // namespace

#ifdef TAVIX_HAS_MQTT
TEST_F(BridgeWithoutNames, EndsWithABrokerThatHasAName) {
  ExpectEnd(TAVIX_BRIDGE_MQTT_PROGRAM, "[mqtt]\nhost=silent.example\nroot=fleet\ndevice=cam\n");
}
#endif

#ifdef TAVIX_HAS_ETCD
TEST_F(BridgeWithoutNames, EndsWithAClusterThatHasAName) {
  ExpectEnd(TAVIX_BRIDGE_ETCD_PROGRAM, "[etcd]\nendpoints=https://silent.example:1\nprefix=fleet\n");
}
#endif

}  // namespace tavix::test
