#pragma once

#include <cstddef>

namespace tavix::settings {
struct Amendment;
}

namespace tavix::settings::server {

class SettingsManager;

// How many patterns join or leave the record of deleted groups because the amendment names that group. Each of them is
// tried on all groups of the store, and those that leave need not stand in the amendment. Patterns that it takes off
// the record by their own name are not counted. While the record changes beside, the number is approximate.
//
// Threads: any.
size_t CountRecordedPatterns(const Amendment& amendment, const SettingsManager& store);

}  // namespace tavix::settings::server
