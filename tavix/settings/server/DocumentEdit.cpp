#include "tavix/settings/server/DocumentEdit.h"

#include "tavix/settings/server/DocumentChange.h"
#include "tavix/settings/server/DocumentTally.h"
#include "tavix/settings/server/StoreAccount.h"

namespace tavix::settings::server {

using core::IniFile;

namespace {

std::ptrdiff_t Negative(size_t bytes) {
  return -static_cast<std::ptrdiff_t>(bytes);
}

void EraseKeys(IniFile::iterator group, const IniFile::KeyMap& keys, StoreAccount& account,
               DocumentTally& tally) noexcept {
  for (const auto& erased : keys) {
    const auto key = group->second.find(erased.first);
    if (key == group->second.end()) continue;
    account.Add(Negative(StoreAccount::CountSetting(key->first, key->second)));
    tally.OnKeyRemoved();
    group->second.erase(key);
  }
}

}  // namespace

void DocumentEdit::RemoveGroup(const std::string& group) {
  _erased.RemoveGroup(group);
  _set.RemoveGroup(group);
  _removed.insert(group);
}

bool DocumentEdit::Touches(const std::string& group) const {
  return _removed.count(group) != 0 || _erased.HasGroup(group) || _set.HasGroup(group);
}

std::ptrdiff_t DocumentEdit::CountGrowth(const IniFile& document) const {
  std::ptrdiff_t growth = StoreAccount::CountGrowth(document, _set);
  for (const std::string& name : _removed) growth += Negative(StoreAccount::CountGroup(name, document[name]));
  for (const auto& [name, keys] : _erased) {
    for (const auto& erased : keys)
      growth += Negative(StoreAccount::CountSetting(erased.first, document.GetValue(name, erased.first)));
  }
  return growth;
}

void DocumentEdit::CarryOut(IniFile& document, StoreAccount& account, DocumentTally& tally) noexcept {
  MoveGroups(document, tally, _removed, _removedGroups);
  account.Add(Negative(StoreAccount::Count(_removedGroups)));
  for (const auto& [name, keys] : _erased) {
    const auto group = document.GetMutableGroups().find(name);
    if (group != document.end()) EraseKeys(group, keys, account, tally);
  }
  _merge.CarryOut(document, account, tally);
}

}  // namespace tavix::settings::server
