#include "programs/cli/commands/Follower.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "programs/common/client/Failure.h"

namespace tavix::programs::cli {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kFirstPause{50};
constexpr milliseconds kLongestPause{1000};

std::optional<milliseconds> LeftUntil(Follower::End end) {
  if (!end) return std::nullopt;
  const auto left = std::chrono::ceil<milliseconds>(*end - Follower::Clock::now());
  return std::max(left, milliseconds(0));
}

}  // namespace

Follower::Follower(Context& context, std::set<std::string> groups) : _context(context), _groups(std::move(groups)) {
  _settings = _context.GetSession().Subscribe(_groups);
}

bool Follower::AwaitChange(End end) {
  try {
    const std::optional<Session::Notice> notice = _context.GetSession().AwaitNotice(LeftUntil(end));
    if (!notice) return !HasCome(end);
    TakeOver(*notice);
    return true;
  } catch (const Failure& failure) {
    // Somebody may be writing it still.
    if (failure.GetCode() == kExitBadInput && !_context.GetOptions().local.empty()) {
      _context.GetConsole().Say(std::string(failure.what()) + "; waiting for the next change");
      return true;
    }
    if (failure.GetCode() != kExitNoServer) throw;
    _context.GetConsole().Say(std::string(failure.what()) + "; trying again");
    return ReconnectUntil(end);
  }
}

void Follower::TakeOver(const Session::Notice& notice) {
  for (const std::string& group : notice.groups) {
    _settings.RemoveGroup(group);
    _settings.MergeSettings(notice.settings, group);
  }
}

bool Follower::ReconnectUntil(End end) {
  for (milliseconds pause = kFirstPause; !HasCome(end); pause = std::min(2 * pause, kLongestPause)) {
    try {
      _settings = _context.Reconnect().Subscribe(_groups);
      _context.GetConsole().Say("connected again to " + _context.GetSession().GetAddress());
      return true;
    } catch (const Failure& failure) {
      if (failure.GetCode() != kExitNoServer) throw;
    }
    // Nobody tells when a daemon that is away comes back.
    std::this_thread::sleep_for(std::min(pause, LeftUntil(end).value_or(pause)));
  }
  return false;
}

}  // namespace tavix::programs::cli
