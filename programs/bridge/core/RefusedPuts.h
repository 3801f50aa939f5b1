#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "programs/bridge/core/Keys.h"

namespace tavix::bridge {

// Puts that a broker refused, and when to try them again: an administrator may change what it refuses. After a minute
// first, then ever later up to an hour, and at once with each new link.
//
// Threads: one.
class RefusedPuts {
 public:
  void Add(const std::string& topic, Milliseconds now);
  void Remove(const std::string& topic) { _puts.erase(topic); }
  void RetryAll();

  // Topics whose moment has come, once for each refusal.
  std::vector<std::string> TakeDue(Milliseconds now);

  // Whether it was refused, and its moment has not come.
  bool IsWaiting(const std::string& topic) const;

  bool Has(const std::string& topic) const { return _puts.count(topic) > 0; }
  size_t Count() const { return _puts.size(); }
  std::optional<Milliseconds> GetNext() const;

 private:
  struct Refused {
    Milliseconds wait{0};
    std::optional<Milliseconds> next;  // nothing: it is tried again now
  };

  std::map<std::string, Refused> _puts;
};

}  // namespace tavix::bridge
