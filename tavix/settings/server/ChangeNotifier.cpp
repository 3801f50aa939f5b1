#include "tavix/settings/server/ChangeNotifier.h"

#include "tavix/osa/Exception.h"
#include "tavix/settings/server/NoticeRound.h"

namespace tavix::settings::server {

void ChangeNotifier::RefuseInCallback() const {
  if (_gate.IsHeldByThisThread())
    throw osa::Exception("A change callback must not change the store that it is told about");
}

void ChangeNotifier::Notify(const std::set<std::string>& changedGroups, const core::IniFile& settings) const {
  NoticeRound round;
  _dispatcher.OnChange(_gate, changedGroups, settings, [&] { round.WriteNotices(); });
}

void ChangeNotifier::Notify(const core::IniFile& settings) const {
  NoticeRound round;
  _dispatcher.OnChange(_gate, settings, [&] { round.WriteNotices(); });
}

}  // namespace tavix::settings::server
