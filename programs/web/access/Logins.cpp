#include "programs/web/access/Logins.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <iterator>

#include "programs/web/access/PrivateFile.h"

namespace tavix::web {

namespace {

constexpr size_t kMaxSessions = 256;

// What failures are counted for.
std::string NetworkOf(const std::string& address) {
  in6_addr bytes{};
  if (inet_pton(AF_INET6, address.c_str(), &bytes) != 1) return address;
  return std::string(reinterpret_cast<const char*>(bytes.s6_addr), 8);
}

std::chrono::seconds WholeSeconds(Logins::Clock::duration time) {
  return std::chrono::ceil<std::chrono::seconds>(time);
}

// Of the entry for which that time is the smallest.
template <class Map, class TimeOf>
void DropOldest(Map& map, TimeOf timeOf) {
  map.erase(std::min_element(map.begin(), map.end(), [&](const auto& left, const auto& right) {
    return timeOf(left.second) < timeOf(right.second);
  }));
}

}  // namespace

std::string Logins::Begin(Time now) {
  if (_sessions.size() >= kMaxSessions) DropOldest(_sessions, [](const Session& session) { return session.used; });
  std::string cookie = MakeSecret();
  _sessions[cookie] = {now, now};
  return cookie;
}

// A search by order would tell how much of a guess is right, but a random value of 256 bits is not found by its parts.
bool Logins::IsValid(const std::string& cookie, Time now) const {
  const auto session = _sessions.find(cookie);
  return session != _sessions.end() && now - session->second.used <= kIdleTime &&
         now - session->second.begun <= kMaxTime;
}

bool Logins::Use(const std::string& cookie, Time now) {
  if (!IsValid(cookie, now)) {
    _sessions.erase(cookie);
    return false;
  }
  _sessions[cookie].used = now;
  return true;
}

void Logins::ForgetOld(Time now) {
  for (auto one = _failures.begin(); one != _failures.end();)
    one = now - one->second.first >= kFailureTime ? _failures.erase(one) : std::next(one);
  if (now - _allFailures.first >= kFailureTime) _allFailures.count = 0;
}

std::chrono::seconds Logins::FindWait(const std::string& address, Time now) {
  ForgetOld(now);
  const std::string network = NetworkOf(address);
  const auto failures = _failures.find(network);
  if (failures != _failures.end() && failures->second.count >= kMaxFailures)
    return WholeSeconds(failures->second.first + kFailureTime - now);
  const bool isFull = _allFailures.count >= kMaxAllFailures && _succeeded.count(network) == 0;
  return isFull ? WholeSeconds(_allFailures.first + kFailureTime - now) : std::chrono::seconds(0);
}

void Logins::BeginAttempt(const std::string& address, Time now) {
  const std::string network = NetworkOf(address);
  if (_failures.size() >= kMaxAddresses && _failures.count(network) == 0)
    DropOldest(_failures, [](const Failures& failures) { return failures.first; });
  for (Failures* const failures : {&_failures[network], &_allFailures}) {
    if (failures->count == 0) failures->first = now;
    ++failures->count;
  }
}

void Logins::Succeed(const std::string& address, Time now) {
  const std::string network = NetworkOf(address);
  if (_allFailures.count > 0) --_allFailures.count;
  _failures.erase(network);
  if (_succeeded.size() >= kMaxAddresses && _succeeded.count(network) == 0)
    DropOldest(_succeeded, [](Time time) { return time; });
  _succeeded[network] = now;
}

}  // namespace tavix::web
