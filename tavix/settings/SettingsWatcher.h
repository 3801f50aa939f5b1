#pragma once

#include <memory>
#include <string>

#include "tavix/osa/Export.h"

namespace tavix::settings {

class TavixSettingsClient;

// Binds variables of the caller to settings: an update that finds a change sets every variable anew.
//
//     int fps = 0;
//     SettingsWatcher watcher(&client);
//     watcher.AddSetting("Video/Main", "fps", &fps);
//     watcher.UpdateSettings();            // fps is set now
//     while (running) {
//       if (watcher.TryUpdateSettings()) Restart(fps);
//       ...
//     }
//
// Threads: one thread adds and updates; the variables are written on it alone.
// Owns:    neither client nor variables; both outlive the watcher, and destroying it leaves the variables as they are.
// Errors:  those of IniWatcher.
class TAVIX_EXPORT SettingsWatcher {
 public:
  explicit SettingsWatcher(TavixSettingsClient* client);
  ~SettingsWatcher();

  SettingsWatcher(const SettingsWatcher&) = delete;
  SettingsWatcher& operator=(const SettingsWatcher&) = delete;

  // Touch nothing yet. A missing setting is 0, false or empty. Those added after the first update are never read.
  void AddSetting(const std::string& group, const std::string& key, int* target);
  void AddSetting(const std::string& group, const std::string& key, bool* target);
  void AddSetting(const std::string& group, const std::string& key, std::string* target);

  // The first call reads, subscribes and sets every variable; later ones do when something changed. Returns whether the
  // variables were set.
  bool UpdateSettings();

  // As a later UpdateSettings, but never waits.
  bool TryUpdateSettings();

 private:
  class TAVIX_LOCAL SettingsWatcherImpl;
  std::unique_ptr<SettingsWatcherImpl> _pImpl;
};

}  // namespace tavix::settings
