#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <random>
#include <string>
#include <thread>

#include "tavix/core/IniFile.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tests/support/BackgroundCall.h"

namespace tavix::test {

// Merges into, replaces and erases the groups "Busy/0" to "Busy/4" in a random order, as fast as the client takes it.
inline void ChangeAtFullSpeed(settings::TavixSettingsClient& client, int changes = 1000) {
  std::mt19937 random(1);
  for (int change = 0; change < changes; ++change) {
    const std::string group = "Busy/" + std::to_string(random() % 5);
    core::IniFile settings;
    settings.SetInt(group, "key" + std::to_string(random() % 3), change);
    switch (random() % 4) {
      case 0:
        client.EraseGroups(group);
        break;
      case 1:
        client.OverwriteSettings(settings);
        break;
      default:
        client.MergeSettings(settings);
    }
  }
}

// A document whose notice takes a while to be collected.
inline core::IniFile LargeDocument() {
  core::IniFile document;
  for (int group = 0; group < 1000; ++group) document.SetInt("Group " + std::to_string(group), "key", group);
  return document;
}

// Merges the document into a Local client's store again and again, until "tryUpdate" has returned false while a notice
// was being collected and its lock therefore busy. False when that does not happen within 20 s.
//
// tryUpdate: applies what is pending, and returns whether it did. When it returns false though a notice was collected
// since the last application, the lock was certainly busy: at most one more than was counted was in that application.
// Each try is made a little later in the course of a change than the one before.
inline bool FindsTheLockBusy(settings::TavixSettingsClient& client, const core::IniFile& large,
                             const std::function<bool()>& tryUpdate) {
  using Clock = std::chrono::steady_clock;
  std::atomic<bool> stop{false};
  std::atomic<int> collected{0};
  std::atomic<Clock::duration> length{Clock::duration::zero()};  // of a change
  BackgroundCall writer([&] {
    for (; !stop; ++collected) {
      const Clock::time_point begin = Clock::now();
      client.MergeSettings(large);
      length = Clock::now() - begin;
    }
  });
  int applied = 0;
  int tries = 0;
  const bool found = Eventually([&] {
    if (collected <= applied) return false;
    const Clock::time_point moment = Clock::now() + length.load() * (++tries % 32) / 32;
    while (Clock::now() < moment) std::this_thread::yield();
    if (!tryUpdate()) return true;
    applied = collected + 1;
    return false;
  });
  stop = true;
  writer.Join();
  return found;
}

}  // namespace tavix::test
