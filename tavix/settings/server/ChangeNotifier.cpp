#include "tavix/settings/server/ChangeNotifier.h"

#include <algorithm>
#include <new>
#include <utility>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/NoticeRound.h"

namespace tavix::settings::server {

NotificationReserve::NotificationReserve(const core::IniFile& settings) {
  size_t longest = 0;
  for (const auto& group : settings) longest = std::max(longest, group.first.size());
  _set.emplace(longest, '\0');
}

// An assignment of what has room asks for no memory.
const std::set<std::string>& NotificationReserve::GetSetOf(const std::string& name) noexcept {
  auto node = _set.extract(_set.begin());
  node.value().assign(name);
  _set.insert(std::move(node));
  return _set;
}

void ChangeNotifier::RefuseInCallback() const {
  if (_gate.IsHeldByThisThread())
    throw osa::Exception("A change callback must not change the store that it is told about");
}

void ChangeNotifier::Notify(NoticeRound& round, NotificationReserve& reserve, std::set<std::string>& removed,
                            const core::IniFile& settings) const {
  try {
    NotifyOfAll(round, removed, settings);
  } catch (const std::bad_alloc&) {
    NotifyOneByOne(reserve, removed, settings);
  }
  round.WriteNotices();
}

void ChangeNotifier::NotifyOfAll(NoticeRound& round, std::set<std::string>& removed,
                                 const core::IniFile& settings) const {
  const auto writeNotices = [&round] { round.WriteNotices(); };
  if (removed.empty()) return _dispatcher.OnChange(_gate, settings, writeNotices);
  for (const auto& group : settings) removed.insert(group.first);
  _dispatcher.OnChange(_gate, removed, settings, writeNotices);
}

// Groups that are in both are announced twice.
void ChangeNotifier::NotifyOneByOne(NotificationReserve& reserve, std::set<std::string>& removed,
                                    const core::IniFile& settings) const {
  std::set<std::string> one;
  while (!removed.empty()) {
    one.insert(removed.extract(removed.begin()));
    _dispatcher.OnChangeOfOne(_gate, one, settings);
    one.clear();
  }
  for (const auto& group : settings) _dispatcher.OnChangeOfOne(_gate, reserve.GetSetOf(group.first), settings);
}

}  // namespace tavix::settings::server
