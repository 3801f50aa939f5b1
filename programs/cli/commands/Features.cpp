#include "programs/cli/commands/Features.h"

#include "programs/common/client/Failure.h"

namespace tavix::programs::cli {

void RequireHistory(Session& session) {
  const auto* const features = session.FindFeatures();
  if (features == nullptr) throw Failure(kExitNotApplied, "the server is too old for a history");
  if (features->count("history") == 0)
    throw Failure(kExitNotApplied, "the server has no history", "it needs --history BYTES and --user-settings FILE");
}

void RequireTrials(Session& session, const std::string& needed) {
  const auto* const features = session.FindFeatures();
  const std::string outcome = needed.empty() ? "" : "not applied: ";
  if (features == nullptr)
    throw Failure(kExitNotApplied, outcome + "the server is too old for " + (needed.empty() ? "trials" : needed));
  if (features->count("trial") == 0)
    throw Failure(kExitNotApplied, outcome + "the server has no trials" + (needed.empty() ? "" : " for " + needed));
}

}  // namespace tavix::programs::cli
