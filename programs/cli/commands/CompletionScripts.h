#pragma once

namespace tavix::programs::cli {

// The files in programs/cli/completion, as the build found them.
extern const char kBashCompletion[];
extern const char kZshCompletion[];
extern const char kFishCompletion[];

}  // namespace tavix::programs::cli
