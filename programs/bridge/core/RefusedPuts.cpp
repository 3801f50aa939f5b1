#include "programs/bridge/core/RefusedPuts.h"

#include <algorithm>

namespace tavix::bridge {

namespace {

constexpr Milliseconds kFirstWait{60'000};
constexpr Milliseconds kLastWait{60 * 60'000};

}  // namespace

void RefusedPuts::Add(const std::string& topic, Milliseconds now) {
  Refused& refused = _puts[topic];
  refused.wait = refused.wait.count() == 0 ? kFirstWait : std::min(2 * refused.wait, kLastWait);
  refused.next = now + refused.wait;
}

void RefusedPuts::RetryAll() {
  for (auto& [topic, refused] : _puts) refused.next = Milliseconds(0);
}

std::vector<std::string> RefusedPuts::TakeDue(Milliseconds now) {
  std::vector<std::string> due;
  for (auto& [topic, refused] : _puts) {
    if (!refused.next || *refused.next > now) continue;
    refused.next.reset();
    due.push_back(topic);
  }
  return due;
}

bool RefusedPuts::IsWaiting(const std::string& topic) const {
  const auto found = _puts.find(topic);
  return found != _puts.end() && found->second.next;
}

std::optional<Milliseconds> RefusedPuts::GetNext() const {
  std::optional<Milliseconds> next;
  for (const auto& [topic, refused] : _puts) {
    if (refused.next) next = std::min(next.value_or(*refused.next), *refused.next);
  }
  return next;
}

}  // namespace tavix::bridge
