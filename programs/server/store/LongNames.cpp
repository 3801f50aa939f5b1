#include "programs/server/store/LongNames.h"

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"

namespace tavix::daemon {

void WarnOfLongNames(const std::string& file, const core::IniFile& settings, size_t maxBytes) {
  size_t count = 0;
  for (const auto& [group, keys] : settings) {
    count += group.size() > maxBytes ? 1 : 0;
    for (const auto& key : keys) count += key.first.size() > maxBytes ? 1 : 0;
  }
  if (count == 0) return;
  core::Logger::GetLogger("Settings")
      ->Warning("'%s': names longer than %zu bytes, which clients can't send (--max-name): %zu", file.c_str(), maxBytes,
                count);
}

}  // namespace tavix::daemon
