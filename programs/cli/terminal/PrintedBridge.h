#pragma once

#include <string>

#include "programs/cli/terminal/Console.h"
#include "programs/common/client/JsonPlaces.h"

// What a bridge answers, for people. Answers are somebody else's: what is missing in one, or is something else than it
// has to be, throws Failure, kExitBadInput, which names its place.
namespace tavix::programs::cli {

// The value at a place. kind: as JsonPlaces has it. source: what the document comes from.
std::string TakePlace(const JsonPlaces& places, const std::string& source, const std::string& place, char kind);

// What Console prints. code: becomes the ExitCode of what is shown.
using ShowBridge = std::string(const Console& console, const JsonPlaces& answer, const std::string& source, int& code);
ShowBridge ShowBridgeStatus;
ShowBridge ShowBridgeDifferences;
ShowBridge ShowBridgeConflicts;

}  // namespace tavix::programs::cli
