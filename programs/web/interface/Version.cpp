#include "programs/web/interface/Version.h"

#include "programs/web/interface/Sha256.h"

namespace tavix::web {

namespace {

constexpr size_t kBytes = 16;

void AddText(Sha256& hash, const std::string& text) {
  hash.Add(std::to_string(text.size()) + ":");
  hash.Add(text);
}

}  // namespace

std::string VersionOf(const core::IniFile::KeyMap& keys, const std::string& salt) {
  Sha256 hash;
  AddText(hash, salt);
  for (const auto& [key, value] : keys) {
    AddText(hash, key);
    AddText(hash, value);
  }
  const auto digest = hash.Finish();
  std::string version;
  for (size_t i = 0; i < kBytes; ++i) {
    version += "0123456789abcdef"[digest[i] >> 4U];
    version += "0123456789abcdef"[digest[i] & 15U];
  }
  return version;
}

}  // namespace tavix::web
