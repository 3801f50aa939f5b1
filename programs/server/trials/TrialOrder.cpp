#include "programs/server/trials/TrialOrder.h"

#include <algorithm>

#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/RefusedChange.h"

namespace tavix::daemon {

using settings::server::ChangeOrigin;
using settings::server::RefusedChange;

namespace {

constexpr size_t kMaxDigits = 4;
constexpr size_t kMaxShown = 100;  // bytes of what is wrong

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

bool IsNameCharacter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || IsDigit(c) || c == '.' || c == '_' || c == '-';
}

bool IsTime(std::string_view text) {
  if (text.empty() || text.size() > kMaxDigits || !std::all_of(text.begin(), text.end(), IsDigit)) return false;
  const int seconds = std::stoi(std::string(text));
  return seconds >= 1 && seconds <= TrialOrder::kMaxTime.count();
}

std::string_view TrimBegin(std::string_view text) {
  return text.substr(std::min(text.find_first_not_of(" \t"), text.size()));
}

}  // namespace

bool IsTrialName(std::string_view text) {
  return !text.empty() && text.size() <= TrialOrder::kMaxNameBytes && text != "." && text != ".." &&
         std::all_of(text.begin(), text.end(), IsNameCharacter);
}

TrialOrder TrialOrder::Read(std::string_view text) {
  const std::string_view begin = TrimBegin(text);
  const std::string_view seconds = begin.substr(0, begin.find_first_of(" \t"));
  std::string_view name = TrimBegin(begin.substr(seconds.size()));
  name = name.substr(0, name.find_last_not_of(" \t") + 1);
  if (text.size() > ChangeOrigin::kMaxTrialBytes || !IsTime(seconds) || !IsTrialName(name)) {
    throw RefusedChange(RefusedChange::Reason::kTrial,
                        "'" + std::string(text.substr(0, kMaxShown)) +
                            "' is no try: seconds from 1 to 3600, and a name of 1 to 64 of A-Z a-z 0-9 . _ -");
  }
  return {std::chrono::seconds(std::stoi(std::string(seconds))), std::string(name)};
}

}  // namespace tavix::daemon
