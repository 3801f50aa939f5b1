#pragma once

#include <string>

#include "tests/programs/cli/process/ScriptedDaemon.h"

namespace tavix::test {

// What a server answers that is older than the question for its features, that has neither history nor trials, and that
// has both; and what it answers to the question whether changes are kept.
inline const std::string kAskFeatures = "info features\nget delimited\n.\n";
inline const Exchange::value_type kOld{kAskFeatures, "data\n.\n"};
inline const Exchange::value_type kOff{kAskFeatures, "Features\n--------\namend\n\ndata\n.\n"};
inline const Exchange::value_type kFeatures{kAskFeatures,
                                            "Features\n--------\namend\nhistory 96 118\ntrial\n\ndata\n.\n"};
inline const Exchange::value_type kServer{"info server\nget delimited\n.\n", "data\n.\n"};

}  // namespace tavix::test
