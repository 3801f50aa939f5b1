#pragma once

#include <string>

#include "programs/server/options/Options.h"

namespace tavix::daemon {

// Where the files that the daemon writes lie. Looked at before anything is locked, made, renamed or removed there, so
// that a slip in an option harms nothing.
//
// Errors: UserSettingsRefused, and osa::Exception for the metrics, with one sentence: the option, its path and what is
//         wrong with it.

// Replaces the paths of the user settings and the metrics by those that they lead to, links followed.
void ResolvePlaces(Options& options);

// For one option. Empty stays empty.
std::string ResolveUserSettings(const std::string& path);
std::string ResolveMetricsFile(const std::string& path);

// Why nothing can be written beside the file, with the directory's name. Empty: it can.
std::string FindDirectoryProblem(const std::string& file);

// Why changes of the user settings will not be kept. Empty: they will, as far as their directory is concerned.
std::string FindWhyNotKept(const std::string& userSettings);

}  // namespace tavix::daemon
