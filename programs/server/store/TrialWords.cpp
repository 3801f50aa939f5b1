#include "programs/server/store/TrialWords.h"

#include <string>

#include "tavix/settings/server/RefusedChange.h"

namespace tavix::daemon {

using settings::server::RefusedChange;

namespace {

constexpr std::string_view kTry = "try";
constexpr std::string_view kTrial = "trial";
constexpr std::string_view kConfirm = "confirm";
constexpr std::string_view kRevert = "revert";

// Behind the word, without the blanks around it.
std::string NameOf(std::string_view args) {
  const size_t begin = args.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return "";
  return std::string(args.substr(begin, args.find_last_not_of(" \t") + 1 - begin));
}

}  // namespace

// A trial may be of many settings: what shows, keeps or reverts one may take long.
const TrialWords::Command* TrialWords::Find(std::string_view word) const {
  static const Command arms{false, false, false, true};
  static const Command shows{true, false, true, false};
  static const Command confirms{true, false, false, false};
  static const Command reverts{true, true, false, false};
  if (word == kTry) return &arms;
  if (word == kTrial) return &shows;
  if (word == kConfirm) return &confirms;
  return word == kRevert ? &reverts : nullptr;
}

TrialWords::Answer TrialWords::CarryOut(const Call& call) {
  Answer answer;
  try {
    Do(call, NameOf(call.args), answer);
    answer.kind = Answer::Kind::kData;
  } catch (const RefusedChange& refusal) {
    answer.kind = Answer::Kind::kRefused;
    answer.reason = refusal.what();
  }
  return answer;
}

void TrialWords::Do(const Call& call, const std::string& name, Answer& answer) {
  if (call.word == kConfirm) {
    answer.ticket = _trials.Confirm(name, call.origin.client);
  } else if (call.word == kRevert) {
    answer.ticket = _trials.Revert(name, call.origin);
  }
  _trials.Describe(name, answer.data);
}

void TrialWords::AddFeatures(std::set<std::string>& features) const {
  features.emplace(kTrial);
}

}  // namespace tavix::daemon
