#pragma once

#include <string>
#include <string_view>

#include "programs/server/trials/TrialSettings.h"
#include "tavix/settings/server/ClientIdentity.h"

// The comment lines of journals and of FILE.trials that are about trials: docs/history.md.
//
//     #t NAME CONNECTION USER GROUP PROCESS   a trial is pending; the lines behind it are about it
//     #t- [group]key=OLD                      a setting that goes back to this value; without a key: an empty group
//     #t! [group]key                          a setting that goes back to not being there
//     #t~ [group]key                          a setting that another client has written since
//     #c NAME STATE                           the trial has ended: it was confirmed or reverted
//
// A line more than once, or all lines from some moment on once more, in their order, lead to the same end.

namespace tavix::daemon {

// `[group]key`, escaped as settings text; `[group]=` for a key that is empty, `[group]` for none.
std::string SpellSetting(const SettingName& name);

// `CONNECTION USER GROUP PROCESS`, "-" for what is not known.
std::string SpellClient(const settings::server::ClientIdentity& client);

std::string SpellPending(const std::string& trial, const settings::server::ClientIdentity& client);
void AppendOldSettings(const OldSettings& settings, std::string& lines);
void AppendWrittenSetting(const SettingName& name, std::string& lines);
std::string SpellEnd(const std::string& trial, std::string_view state);

// What ReadTrialLines calls for each line that is whole.
//
// Threads: the reader's.
class ITrialLines {
 public:
  virtual ~ITrialLines() = default;

  virtual void OnPending(const std::string& trial, const settings::server::ClientIdentity& client) = 0;
  virtual void OnSetting(const std::string& trial, SettingName name, std::optional<std::string> old) = 0;
  virtual void OnWritten(const std::string& trial, const SettingName& name) = 0;
  virtual void OnEnd(const std::string& trial, std::string_view state) = 0;
};

// Reads the lines at the begin of a text, up to the first one that is about something else. What is damaged is skipped.
void ReadTrialLines(std::string_view text, ITrialLines& lines);

// The lines that it reads.
std::string_view TakeTrialLines(std::string_view text);

}  // namespace tavix::daemon
