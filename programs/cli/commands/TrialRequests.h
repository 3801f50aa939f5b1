#pragma once

#include <optional>
#include <string>

#include "programs/common/client/Revisions.h"
#include "programs/common/client/Session.h"

namespace tavix::programs::cli {

// How the server sees a trial behind a request about it.
struct TrialAnswer {
  bool isDone = false;              // false: the request was refused
  std::string refusal;              // why
  std::optional<TrialState> trial;  // none: there is no trial of that name
};

// word: "trial", "confirm" or "revert". Behind a refusal the state is asked for.
TrialAnswer AskForTrial(Session& session, const std::string& word, const std::string& name);

// "reverted t-3f9a: 1 setting", and what stays because others have written it since. before: the trial when it was
// pending, which alone has the settings that it had left.
std::string DescribeReverted(const TrialState& before, const TrialState& after);

}  // namespace tavix::programs::cli
