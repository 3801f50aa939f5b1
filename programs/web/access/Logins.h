#pragma once

#include <chrono>
#include <map>
#include <string>

namespace tavix::web {

// Logins, and attempts at them that failed.
//
// Threads: one, the loop's.
class Logins {
 public:
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;

  static constexpr std::chrono::minutes kIdleTime{30};
  static constexpr std::chrono::hours kMaxTime{12};
  static constexpr size_t kMaxFailures = 5;      // of one address
  static constexpr size_t kMaxAllFailures = 60;  // of all, but for addresses that gave the password before
  static constexpr size_t kMaxAddresses = 1024;  // for more, the oldest is dropped
  static constexpr std::chrono::seconds kFailureTime{60};

  // A cookie's value for a client that gave the password. Beyond 256 the one that was used longest ago is dropped.
  std::string Begin(Time now);

  // Whether it is such a value; counts as a use of it.
  bool Use(const std::string& cookie, Time now);

  // The same, and counts as none.
  bool IsValid(const std::string& cookie, Time now) const;

  void End(const std::string& cookie) { _sessions.erase(cookie); }

  // Before a password is looked at: how long the address has to wait; 0: it may try. Addresses of IPv6 count by their
  // networks of 64 bits, of which one host may have them all.
  std::chrono::seconds FindWait(const std::string& address, Time now);

  // An attempt, which counts as a failure until Succeed.
  void BeginAttempt(const std::string& address, Time now);
  void Succeed(const std::string& address, Time now);

 private:
  struct Session {
    Time begun;
    Time used;
  };
  struct Failures {
    Time first;
    size_t count = 0;
  };

  void ForgetOld(Time now);

  std::map<std::string, Session> _sessions;
  std::map<std::string, Failures> _failures;
  Failures _allFailures;
  std::map<std::string, Time> _succeeded;  // of addresses
};

}  // namespace tavix::web
