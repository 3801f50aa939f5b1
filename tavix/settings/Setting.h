#pragma once

#include <string>

#include "tavix/core/IniFile.h"

namespace tavix::settings {

// One setting that a variable follows.
//
// Threads: one at a time, which the variable belongs to, too.
class SettingBase {
 public:
  SettingBase(const std::string& group, const std::string& key) : _group(group), _key(key) {}
  virtual ~SettingBase() = default;

  SettingBase(const SettingBase&) = delete;
  SettingBase& operator=(const SettingBase&) = delete;

  // Sets the variable from "settings"; a missing setting is the type's default.
  virtual void ReadSetting(const core::IniFile& settings) = 0;

 protected:
  const std::string _group;
  const std::string _key;
};

// The same for a type: int (0), bool (false) and std::string (empty).
template <class T>
class Setting : public SettingBase {
 public:
  // target: the caller's variable; outlives the setting.
  Setting(const std::string& group, const std::string& key, T* target) : SettingBase(group, key), _target(target) {}

  void ReadSetting(const core::IniFile& settings) override;

 private:
  T* const _target;
};

template <>
inline void Setting<int>::ReadSetting(const core::IniFile& settings) {
  *_target = settings.GetIntOrDefault(_group, _key, 0);
}

template <>
inline void Setting<bool>::ReadSetting(const core::IniFile& settings) {
  *_target = settings.GetBoolOrDefault(_group, _key, false);
}

template <>
inline void Setting<std::string>::ReadSetting(const core::IniFile& settings) {
  *_target = settings.GetValueOrDefault(_group, _key);
}

}  // namespace tavix::settings
