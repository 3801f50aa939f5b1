#include "programs/cli/commands/TrialRequests.h"

#include "programs/cli/terminal/Documents.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

namespace {

constexpr char kTrial[] = "trial";

std::optional<TrialState> FindTrial(const core::IniFile& data, const std::string& name) {
  const auto found = data.GetGroups().find(name);
  return found == data.end() ? std::nullopt : std::make_optional(TrialState::From(name, found->second));
}

}  // namespace

TrialAnswer AskForTrial(Session& session, const std::string& word, const std::string& name) {
  const Session::Answer answer = session.Ask(word + " " + name, Session::Effect::kNoSettings);
  if (!answer.isRefused) return {true, {}, FindTrial(answer.data, name)};
  TrialAnswer refused{false, answer.reason, std::nullopt};
  if (word != kTrial) refused.trial = AskForTrial(session, kTrial, name).trial;
  return refused;
}

std::string DescribeReverted(const TrialState& before, const TrialState& after) {
  std::string text = "reverted " + SpellName(before.name) + ": " + Count(before.settings.size(), "setting");
  const bool isOne = after.kept.size() == 1;
  if (!after.kept.empty())
    text += "; " + Count(after.kept.size(), "setting") + (isOne ? " stays" : " stay") + ", as others have changed " +
            (isOne ? "it" : "them") + " since";
  return text;
}

}  // namespace tavix::programs::cli
