#pragma once

#include <string>

#include "programs/cli/commands/CommandOptions.h"
#include "programs/cli/commands/Context.h"

// The reason that goes with a change, for those who look later who changed what.
namespace tavix::programs::cli {

struct Note {
  std::string text;
  bool isGiven = false;
};

// note: outlives the parsing.
void AddNote(const CommandOptions& command, Note& note);

// Has the note go with what the context's session writes from now on. Throws Failure as Session::SetNote does.
void SetNote(Context& context, const Note& note);

}  // namespace tavix::programs::cli
