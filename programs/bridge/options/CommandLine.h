#pragma once

#include <string>

#include "programs/bridge/options/Options.h"

namespace tavix::bridge {

// Returns whether the command line is right; otherwise standard error says what is wrong. program: what it is called.
bool ParseCommandLine(const char* program, int argc, char** argv, Options& options);

std::string FormatHelp(const char* program);

}  // namespace tavix::bridge
