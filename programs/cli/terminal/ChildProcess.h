#pragma once

#include <map>
#include <string>
#include <vector>

namespace tavix::programs::cli {

// Runs a shell with "command", which finds the arguments as "$1", "$2" and so on, and the variables in its environment.
// Interrupts meanwhile are the child's affair. Returns its exit status; 128 and the signal's number when one ended it.
// Throws Failure, kExitNotApplied, when there can be no child.
int RunShell(const std::string& command, const std::vector<std::string>& arguments,
             const std::map<std::string, std::string>& variables);

}  // namespace tavix::programs::cli
