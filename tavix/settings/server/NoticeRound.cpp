#include "tavix/settings/server/NoticeRound.h"

namespace tavix::settings::server {

namespace {

thread_local NoticeRound* innermost = nullptr;

}  // namespace

NoticeRound::NoticeRound() : _outer(innermost) {
  innermost = this;
}

NoticeRound::~NoticeRound() {
  innermost = _outer;
  WriteNotices();
}

bool NoticeRound::Add(const std::shared_ptr<IReceiver>& receiver, const std::set<std::string>& changedGroups) {
  if (!innermost) return false;
  innermost->_notices.push_back({receiver, innermost->Share(changedGroups)});
  return true;
}

// Subscribers of the same groups often follow one another.
NoticeRound::Groups NoticeRound::Share(const std::set<std::string>& changedGroups) const {
  if (!_notices.empty() && *_notices.back().groups == changedGroups) return _notices.back().groups;
  return std::make_shared<const std::set<std::string>>(changedGroups);
}

void NoticeRound::WriteNotices() noexcept {
  for (const Notice& notice : _notices) notice.receiver->WriteNotice(*notice.groups);
  _notices.clear();
}

}  // namespace tavix::settings::server
