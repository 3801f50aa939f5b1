#pragma once

#include <string>
#include <utility>

namespace tavix::daemon {

// While it lives, its thread works for that peer: lines that are logged meanwhile count as that peer's (LogLimiter).
// One that is made while another lives takes its place until its own end.
//
// Threads: the one that makes it, which destroys it, too.
class LogPeer {
 public:
  // peer: who causes the lines, the same for all of its connections; borrowed. kind: distinguishes lines
  // whose format is the same.
  explicit LogPeer(const std::string& peer, int kind = 0) : LogPeer(&peer, kind) {}

  ~LogPeer() { s_current = _outer; }

  LogPeer(const LogPeer&) = delete;
  LogPeer& operator=(const LogPeer&) = delete;

  // The calling thread's; null when it works for none.
  static const LogPeer* Find() { return s_current && s_current->_name ? s_current : nullptr; }

  const std::string& GetName() const { return *_name; }
  int GetKind() const { return _kind; }

 private:
  friend class LogLimiter;

  LogPeer(const std::string* name, int kind) : _name(name), _kind(kind), _outer(std::exchange(s_current, this)) {}

  static inline thread_local const LogPeer* s_current = nullptr;

  const std::string* const _name;  // null: of nobody
  const int _kind;
  const LogPeer* const _outer;
};

}  // namespace tavix::daemon
