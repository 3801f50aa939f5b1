#pragma once

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tavix/osa/Export.h"

namespace tavix::settings {

class TavixSettingsClient;

// Binds variables of the caller to settings: an update that finds a change sets every variable anew.
//
//     int fps = 0;
//     SettingsWatcher watcher(&client);
//     watcher.AddSetting("Video/Main", "fps", &fps, 25, 1, 60);
//     watcher.UpdateSettings();            // fps is set now
//     while (running) {
//       if (watcher.TryUpdateSettings()) Restart(fps);
//       ...
//     }
//
// The client's own changes arrive as everybody's do: with the notice of them, in a later update.
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

  // The same with a default, for a setting that is missing, can't be read as the type, or is not from "min" to "max". A
  // text that can't be used is logged once, as a warning that names it.
  //
  // double: a decimal number with a point, in any locale. Durations are whole milliseconds. bool: as IniFile reads it.
  void AddSetting(const std::string& group, const std::string& key, int* target, int def,
                  int min = std::numeric_limits<int>::min(), int max = std::numeric_limits<int>::max());
  void AddSetting(const std::string& group, const std::string& key, int64_t* target, int64_t def,
                  int64_t min = std::numeric_limits<int64_t>::min(), int64_t max = std::numeric_limits<int64_t>::max());
  void AddSetting(const std::string& group, const std::string& key, double* target, double def,
                  double min = std::numeric_limits<double>::lowest(), double max = std::numeric_limits<double>::max());
  void AddSetting(const std::string& group, const std::string& key, std::chrono::milliseconds* target,
                  std::chrono::milliseconds def, std::chrono::milliseconds min = std::chrono::milliseconds::min(),
                  std::chrono::milliseconds max = std::chrono::milliseconds::max());
  void AddSetting(const std::string& group, const std::string& key, bool* target, bool def);
  void AddSetting(const std::string& group, const std::string& key, std::string* target, const std::string& def);

  // A text is no default of a bool: as a pointer it would be true.
  template <class T>
  void AddSetting(const std::string& group, const std::string& key, bool* target, const T* def) = delete;

  // The same for an enumeration: the setting is one of the names, exactly.
  //
  //     watcher.AddSetting("Video/Main", "codec", &codec, Codec::kH264,
  //                        {{"h264", Codec::kH264}, {"h265", Codec::kH265}});
  template <class Enum>
  void AddSetting(const std::string& group, const std::string& key, Enum* target, Enum def,
                  std::initializer_list<std::pair<const char*, Enum>> names) {
    static_assert(std::is_enum<Enum>::value, "names are given for enumerations");
    NamedNumbers numbers;
    for (const auto& name : names) numbers.emplace_back(name.first, static_cast<int64_t>(name.second));
    const auto assign = [](void* variable, int64_t number) {
      *static_cast<Enum*>(variable) = static_cast<Enum>(number);
    };
    AddEnumeration(group, key, target, assign, static_cast<int64_t>(def), std::move(numbers));
  }

  // The first call reads, subscribes and sets every variable; later ones do when something changed. Returns whether the
  // variables were set.
  bool UpdateSettings();

  // As a later UpdateSettings, but never waits.
  bool TryUpdateSettings();

 private:
  using NamedNumbers = std::vector<std::pair<std::string, int64_t>>;

  void AddEnumeration(const std::string& group, const std::string& key, void* target, void (*assign)(void*, int64_t),
                      int64_t def, NamedNumbers names);

  class TAVIX_LOCAL SettingsWatcherImpl;
  std::unique_ptr<SettingsWatcherImpl> _pImpl;
};

}  // namespace tavix::settings
