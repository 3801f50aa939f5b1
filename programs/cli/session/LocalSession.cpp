#include "programs/cli/session/LocalSession.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include "programs/cli/session/LocalAmendment.h"
#include "programs/cli/text/ReadFile.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::programs::cli {

using core::IniFile;
using std::chrono::milliseconds;

namespace {

constexpr char kNothingKept[] = "a file has neither history nor trials";

LocalText::IsMeant Mean(const Session::Groups& groups) {
  settings::common::GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(groups);
  return [matcher = std::move(matcher)](const std::string& group) {
    Session::Groups found;
    matcher.GetMatchingGroups(Session::Groups{group}, found);
    return !found.empty();
  };
}

bool MeanNone(const std::string&) {
  return false;
}

Session::Groups NamesOf(const IniFile& settings) {
  Session::Groups names;
  for (const auto& [group, keys] : settings) names.insert(names.end(), group);
  return names;
}

bool IsMissing(const std::string& path) {
  return access(path.c_str(), F_OK) != 0 && errno == ENOENT;
}

}  // namespace

LocalSession::LocalSession(std::string path, milliseconds patience, Access access)
    : _path(std::move(path)), _patience(patience), _access(access) {}

void LocalSession::RequireWritable() const {
  if (_access == Access::kRead)
    throw Failure(kExitUsage, "TAVIX_SETTINGS_LOCALFILE names '" + _path + "', which is read and never written",
                  "--local " + QuoteForShell(_path) + " changes the file");
}

LocalText LocalSession::Read(bool canBeMissing) const {
  if (!IsMissing(_path)) return LocalText(ReadFile(_path), _path);
  if (!canBeMissing)
    throw Failure(kExitNoServer, "there is no file '" + _path + "'",
                  _access == Access::kRead ? "" : "'set' and 'import' make it");
  return LocalText(std::string(), _path);
}

void LocalSession::RunAlone(const std::function<void()>& change) {
  RequireWritable();
  if (_lock) return change();
  struct Unlocking {
    std::optional<FileLock>& lock;
    ~Unlocking() { lock.reset(); }
  } const unlocking{_lock};
  _lock.emplace(_path, _patience);
  RequireReplaceable(_path);
  change();
}

// Nothing is written that the file says already.
void LocalSession::Write(const LocalText::IsMeant& isGone, const IniFile& settings) {
  RunAlone([&] {
    LocalText text = Read(true);
    if (text.Change(isGone, settings)) ReplaceFile(_path, text.GetText());
  });
}

IniFile LocalSession::Get(const Groups& groups) {
  return Read(_canBeNew).GetGroups(Mean(groups));
}

void LocalSession::GetEach(const Groups& groups, const TakeGroup& take) {
  Read(_canBeNew).GetEach(Mean(groups), take);
}

IniFile LocalSession::GetUserSettings() {
  return Read(_canBeNew).GetSettings();
}

void LocalSession::Merge(const IniFile& settings, bool isVolatile) {
  if (isVolatile) throw Failure(kExitUsage, "--volatile makes no sense with --local: a file is all there is");
  Write(MeanNone, settings);
}

bool LocalSession::TestAndMerge(const IniFile& test, const IniFile& settings) {
  bool isDone = false;
  RunAlone([&] {
    const auto isTested = [&](const std::string& group) { return test.HasGroup(group); };
    isDone = Read(true).GetGroups(isTested).ContainsSettings(test);
    if (isDone) Write(MeanNone, settings);
  });
  return isDone;
}

void LocalSession::Overwrite(const Groups& groups, const IniFile& settings) {
  Write(Mean(groups), settings);
}

void LocalSession::Restore(const Groups& groups) {
  Write(Mean(groups), IniFile());
}

bool LocalSession::Amend(const settings::Amendment& amendment) {
  bool isDone = false;
  RunAlone([&] {
    const std::set<std::string> touched = FindGroups(amendment);
    const IniFile before = Read(true).GetGroups([&](const std::string& group) { return touched.count(group) != 0; });
    const std::optional<IniFile> after = ApplyAmendment(amendment, before);
    isDone = after.has_value();
    if (!isDone) return;
    Write([&](const std::string& group) { return LosesSomething(before, *after, group); }, *after);
  });
  return isDone;
}

void LocalSession::RefuseWithoutServer(const std::string& what) const {
  const std::string remedy = _access == Access::kRead ? "unset TAVIX_SETTINGS_LOCALFILE" : "leave --local out";
  throw Failure(kExitUsage, what + ": " + remedy);
}

std::vector<std::string> LocalSession::GetSubscribed() {
  RefuseWithoutServer("a file has no subscribers");
}

std::map<std::string, std::string> LocalSession::GetWhoami() {
  RefuseWithoutServer("a file has no clients");
}

const std::map<std::string, std::string>* LocalSession::FindFeatures() {
  RefuseWithoutServer(kNothingKept);
}

Session::Answer LocalSession::Ask(const std::string&, Effect) {
  RefuseWithoutServer(kNothingKept);
}

void LocalSession::SetTrial(unsigned, const std::string&) {
  RefuseWithoutServer(kNothingKept);
}

void LocalSession::SetNote(const std::string&) {
  RefuseWithoutServer("a file takes no notes");
}

// The directory is watched, since the file is replaced and not written.
IniFile LocalSession::Subscribe(const Groups& groups) {
  _subscribed = groups;
  if (!_watch) _watch.Reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  const uint32_t events = IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_MOVE_SELF | IN_ONLYDIR;
  if (!_watch || inotify_add_watch(_watch.Get(), FindDirectory(_path).c_str(), events) < 0)
    throw Failure(kExitNoServer, "'" + _path + "' can't be watched: " + std::strerror(errno));
  IniFile settings = Get(groups);
  _lastNames = NamesOf(settings);
  return settings;
}

bool LocalSession::ReadEvents() const {
  alignas(inotify_event) char events[4096];
  bool isInPlace = true;
  for (ssize_t size = 0; (size = read(_watch.Get(), events, sizeof events)) > 0;) {
    for (ssize_t at = 0; at < size;) {
      inotify_event event{};
      std::memcpy(&event, events + at, sizeof event);
      isInPlace = isInPlace && (event.mask & (IN_MOVE_SELF | IN_IGNORED)) == 0;
      at += static_cast<ssize_t>(sizeof event + event.len);
    }
  }
  return isInPlace;
}

std::optional<Session::Notice> LocalSession::AwaitNotice(std::optional<milliseconds> limit) {
  pollfd waiting{_watch.Get(), POLLIN, 0};
  constexpr long long kMaxWait = 1000 * 1000 * 1000;  // what poll(2) takes at a time; a longer wait asks again
  const auto wait = limit ? static_cast<int>(std::min<long long>(limit->count(), kMaxWait)) : -1;
  if (poll(&waiting, 1, wait) <= 0) return std::nullopt;
  if (!ReadEvents()) throw Failure(kExitNoServer, "the directory of '" + _path + "' was moved or removed");
  Notice notice;
  notice.settings = Read(true).GetGroups(Mean(_subscribed));
  notice.groups = std::exchange(_lastNames, NamesOf(notice.settings));
  notice.groups.insert(_lastNames.begin(), _lastNames.end());
  return notice;
}

}  // namespace tavix::programs::cli
