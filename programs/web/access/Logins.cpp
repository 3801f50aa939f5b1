#include "programs/web/access/Logins.h"

#include <algorithm>
#include <iterator>

#include "programs/web/access/PrivateFile.h"

namespace tavix::web {

namespace {

constexpr size_t kMaxSessions = 256;
constexpr size_t kMaxAddresses = 1024;

}  // namespace

std::string Logins::Begin(Time now) {
  if (_sessions.size() >= kMaxSessions) {
    _sessions.erase(std::min_element(_sessions.begin(), _sessions.end(), [](const auto& left, const auto& right) {
      return left.second.used < right.second.used;
    }));
  }
  std::string cookie = MakeSecret();
  _sessions[cookie] = {now, now};
  return cookie;
}

// A search by order would tell how much of a guess is right, but a random value of 256 bits is not found by its parts.
bool Logins::Use(const std::string& cookie, Time now) {
  const auto session = _sessions.find(cookie);
  if (session == _sessions.end()) return false;
  if (now - session->second.used > kIdleTime || now - session->second.begun > kMaxTime) {
    _sessions.erase(session);
    return false;
  }
  session->second.used = now;
  return true;
}

bool Logins::MayTry(const std::string& address, Time now) {
  for (auto one = _failures.begin(); one != _failures.end();)
    one = now - one->second.first >= kFailureTime ? _failures.erase(one) : std::next(one);
  const auto failures = _failures.find(address);
  if (failures == _failures.end()) return _failures.size() < kMaxAddresses;
  return failures->second.count < kMaxFailures;
}

void Logins::BeginAttempt(const std::string& address, Time now) {
  Failures& failures = _failures[address];
  if (failures.count == 0) failures.first = now;
  ++failures.count;
}

}  // namespace tavix::web
