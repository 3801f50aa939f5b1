#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>

#include "tavix/core/IniFile.h"
#include "tavix/settings/client/ProtocolOptions.h"

namespace tavix::c {

// Something that a watch reports.
struct WatchedChange {
  enum class Kind {
    kKey,     // a key got another value, came or went
    kGroup,   // a group without keys came or went
    kResync,  // all that differs since the connection was lost was reported before
  };

  Kind kind = Kind::kKey;
  std::string group = {};
  std::string key = {};
  std::optional<std::string> old = {};  // of a group: any, if it existed
  std::optional<std::string> now = {};
  bool isGone = false;  // the group does not exist any more
};

// The groups of a watch as they were last received, and what has changed since it was reported.
//
// Changes of one key that are pending are one: it keeps the first old value, and gets the newest one when it is taken.
// Those that cancel out are none. So what is pending is bounded by what was reported last and what is there now.
//
// Threads: one.
// Errors:  std::bad_alloc. Then a part of a reading or notice may be missing: read all again, which finds what is.
// Owns:    all of it.
class WatchedContent {
 public:
  // reportsFirst: the groups of the first reading are changes, too.
  explicit WatchedContent(bool reportsFirst) : _reportsFirst(reportsFirst) {}

  WatchedContent(const WatchedContent&) = delete;
  WatchedContent& operator=(const WatchedContent&) = delete;

  // All watched groups as they are now. All but the first of them add what differs and a kResync.
  void TakeReading(core::IniFile&& groups);

  void TakeNotice(const settings::client::ProtocolNotice& notice);

  bool HasPending() const { return !_pending.empty(); }

  // The oldest pending change.
  std::optional<WatchedChange> TakeChange();

 private:
  using Groups = core::IniFile::GroupMap;
  using Keys = core::IniFile::KeyMap;
  using Pending = std::list<WatchedChange>;
  using Place = std::tuple<std::string_view, WatchedChange::Kind, std::string_view>;  // in the strings of a pending one

  void TakeGroup(const std::string& group, const Keys* now);
  void TakeKeys(const std::string& group, const Keys& now);
  void DropKeys(const std::string& group, Keys& keys, const Keys* now);
  Pending::iterator Note(WatchedChange::Kind kind, const std::string& group, const std::string& key,
                         const std::string* old);
  void Remove(Pending::iterator pending);
  void FillIn(WatchedChange& change) const;
  bool IsShownByKeys(const WatchedChange& itself) const;
  static Place PlaceOf(const WatchedChange& change) { return {change.group, change.kind, change.key}; }

  const bool _reportsFirst;
  bool _wasRead = false;
  Groups _groups;
  Pending _pending;
  std::map<Place, Pending::iterator> _places;                    // of all of them but a kResync
  Pending _resync{WatchedChange{WatchedChange::Kind::kResync}};  // while none is pending, so that none has to be made
};

}  // namespace tavix::c
