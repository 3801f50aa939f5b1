#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <set>
#include <string>

#include "tavix/settings/client/ProtocolOptions.h"

namespace tavix::settings::client {

// The notices of one connection that nobody has taken yet. They come in lines, between and in front of replies, so that
// one may be cut by the end of what was received:
//
//     kNone      no notice has begun: its first line, "async change", is awaited
//     kNames     the list of the groups is being read, up to "."
//     kSettings  the payload is being read, up to "."; then the notice is queued, and kNone follows
//
// A notice that does not parse is queued, too, as its error: the reply behind it is for somebody else.
//
// Threads: one.
// Owns:    all of it. A plain value.
class NoticeQueue {
 public:
  using Notice = ProtocolNotice;

  // A notice, or why it can't be read.
  struct Entry {
    Notice notice;
    std::string error = {};
  };

  // maxCount: beyond it notices are merged into the last one.
  explicit NoticeQueue(size_t maxCount) : _maxCount(maxCount) {}

  // Takes a line if it belongs to a notice that has begun, or begins one.
  bool TakeLine(const std::string& line);

  bool IsInNotice() const { return _state != State::kNone; }
  bool IsEmpty() const { return _entries.empty(); }

  // The oldest one. There has to be one.
  Entry Pop();

  // Drops what is known of these groups. Notices about no other group go.
  void Forget(const std::set<std::string>& namesAndPatterns);

 private:
  enum class State { kNone, kNames, kSettings };

  void Finish();
  void Add(Entry entry);

  const size_t _maxCount;
  State _state = State::kNone;
  Notice _notice;     // that is being read
  std::string _text;  // of its payload
  std::deque<Entry> _entries;
};

}  // namespace tavix::settings::client
