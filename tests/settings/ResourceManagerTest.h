#pragma once

#include <string>

#include "tavix/settings/ResourceManager.h"
#include "tests/settings/StoreInMode.h"

namespace tavix::test {

// A resource of 100, of which two consumers use 30 and 50, and "me" 10.
inline constexpr char kShared[] =
    "[Resources/R]\nTotalAvailable=100\n"
    "[Resources/R/Consumers/a]\nCurrentlyUsed=30\n"
    "[Resources/R/Consumers/b]\nCurrentlyUsed=50\n"
    "[Resources/R/Consumers/me]\nCurrentlyUsed=10\n";

inline settings::ResourceManager::ResourceUsage Amount(int amount, const std::string& resource = "R") {
  return {resource, false, amount, 0.0};
}

inline settings::ResourceManager::ResourceUsage Share(double fraction, const std::string& resource = "R") {
  return {resource, true, 0, fraction};
}

inline std::string BookingOf(const std::string& consumer, StoreInMode& store, const std::string& resource = "R") {
  return store.GetClient()->GetValue("[Resources/" + resource + "/Consumers/" + consumer + "]CurrentlyUsed");
}

inline std::string Using(const std::string& consumer, const std::string& amount) {
  return "[Resources/R/Consumers/" + consumer + "]\nCurrentlyUsed=" + amount + "\n";
}

}  // namespace tavix::test
