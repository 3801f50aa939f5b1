#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace tavix::daemon {

// What a client asked for by `try SECONDS NAME`. A plain value.
struct TrialOrder {
  static constexpr std::chrono::seconds kMaxTime{3600};
  static constexpr size_t kMaxNameBytes = 64;

  std::chrono::seconds time{0};
  std::string name;

  // text: behind the word. Throws settings::server::RefusedChange.
  static TrialOrder Read(std::string_view text);
};

// 1 to 64 of A-Z a-z 0-9 . _ -, and neither "." nor "..".
bool IsTrialName(std::string_view text);

}  // namespace tavix::daemon
