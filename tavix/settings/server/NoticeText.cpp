#include "tavix/settings/server/NoticeText.h"

#include "tavix/settings/server/SettingsManager.h"

namespace tavix::settings::server {

namespace {

constexpr size_t kLongestKept = 64 * 1024;

}  // namespace

NoticeText& NoticeText::OfThisThread() {
  static thread_local NoticeText text;
  return text;
}

const NoticeText::Notice* NoticeText::Find(const SettingsManager& store, const std::set<std::string>& changedGroups,
                                           const ISettingsSerializer* serializer) const {
  const bool isSame =
      _version != 0 && _version == store.GetVersion() && _serializer == serializer && _changedGroups == changedGroups;
  return isSame ? &_notice : nullptr;
}

void NoticeText::Keep(const SettingsManager& store, unsigned long long version,
                      const std::set<std::string>& changedGroups, const ISettingsSerializer* serializer,
                      const std::string& text, const common::GroupNameMatcher& groups) {
  _version = 0;
  if (text.size() > kLongestKept || version != store.GetVersion()) return;
  _serializer = serializer;
  _changedGroups = changedGroups;
  _notice = {text, groups};
  _version = version;
}

}  // namespace tavix::settings::server
