#pragma once

#include <gtest/gtest.h>

#include "tavix/settings/TavixSettingsClient.h"
#include "tests/support/Environment.h"

namespace tavix::test {

inline constexpr settings::TavixSettingsClient::OperationMode kRemoteModes[] = {
    settings::TavixSettingsClient::MultiThreaded, settings::TavixSettingsClient::SingleThreaded};

// Clients of a process whose environment says nothing about settings.
class TavixSettingsClientTest : public testing::Test {
 private:
  const ScopedEnvironment _noOverride{"TAVIX_SETTINGS_LOCALFILE", nullptr};
};

}  // namespace tavix::test
