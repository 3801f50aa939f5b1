#pragma once

#include <chrono>
#include <map>
#include <string>

namespace tavix::web {

// Who has given the password, and who has failed to.
//
// Threads: one, the loop's.
class Logins {
 public:
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;

  static constexpr std::chrono::minutes kIdleTime{30};
  static constexpr std::chrono::hours kMaxTime{12};
  static constexpr size_t kMaxFailures = 5;
  static constexpr std::chrono::seconds kFailureTime{60};

  // A cookie's value for one who gave the password. Of very many the one that was used longest ago goes.
  std::string Begin(Time now);

  // Whether it is such a value; counts as a use of it.
  bool Use(const std::string& cookie, Time now);

  void End(const std::string& cookie) { _sessions.erase(cookie); }

  // Before a password is looked at: whether the address has failed too often, and an attempt that counts as a failure
  // until Succeed.
  bool MayTry(const std::string& address, Time now);
  void BeginAttempt(const std::string& address, Time now);
  void Succeed(const std::string& address) { _failures.erase(address); }

 private:
  struct Session {
    Time begun;
    Time used;
  };
  struct Failures {
    Time first;
    size_t count = 0;
  };

  std::map<std::string, Session> _sessions;
  std::map<std::string, Failures> _failures;
};

}  // namespace tavix::web
