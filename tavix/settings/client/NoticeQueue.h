#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <set>
#include <string>

#include "tavix/settings/client/ProtocolOptions.h"

namespace tavix::settings::client {

// The pending notices of one connection. They come in lines, between and in front of replies, so that one may be cut by
// the end of what was received. Its reader, and nobody else, gives the queue line after line:
//
//     kNone      no notice has begun: its first line, "async change", is awaited
//     kNames     the list of the groups is being read, up to "."
//     kSettings  the payload is being read, up to "."; then the notice is queued, and kNone follows
//
// A notice that does not parse is queued, too, as its error: the reply behind it is for somebody else.
//
// What is pending has bounds, and the notice that is being read, whose bytes the reader bounds, comes on top:
//
//     maxCount   From then on a notice is merged into the last one: of each group, only what it holds now is kept.
//     maxBytes   When more than one notice is pending, or one that others were merged into, and they take more, all of
//                them are dropped, and so is every later one until Pop has reported it.
//
// Threads: one.
// Owns:    all of it. A plain value. Useless after anything but osa::Exception was thrown, such as std::bad_alloc: a
//          line may be missing.
class NoticeQueue {
 public:
  using Notice = ProtocolNotice;

  // A notice, why it can't be read, or that notices were dropped.
  struct Entry {
    Notice notice;
    std::string error = {};
    bool isDropped = false;
  };

  NoticeQueue(size_t maxCount, size_t maxBytes) : _maxCount(maxCount), _maxBytes(maxBytes) {}

  // Takes a line if it belongs to a notice that has begun, or begins one.
  bool TakeLine(const std::string& line);

  bool IsInNotice() const { return _state != State::kNone; }
  bool IsEmpty() const { return _entries.empty() && !_hasDropped; }

  // What the pending notices take: the bytes of their names and settings, and for each of these what keeping it takes.
  size_t GetBytes() const { return _bytes; }

  // The oldest one, or that notices were dropped. There has to be one of these.
  Entry Pop();

  // Drops what is known of these groups. Notices about no other group go.
  void Forget(const std::set<std::string>& namesAndPatterns);

 private:
  enum class State { kNone, kNames, kSettings };

  void Finish();
  void Add(Entry entry);
  void MergeIntoLast(Entry entry);
  void DropAll();

  const size_t _maxCount;
  const size_t _maxBytes;
  State _state = State::kNone;
  Notice _notice;     // that is being read
  std::string _text;  // of its payload
  std::deque<Entry> _entries;
  size_t _bytes = 0;         // of the entries
  bool _hasDropped = false;  // notices, and it was not reported
};

}  // namespace tavix::settings::client
