#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/settings/Setting.h"

namespace tavix::settings {

// A setting that a variable follows while its text is of use, and that is a default else. A text that is of no use is
// logged when it is first seen.
//
// Threads: as SettingBase.
class CheckedSetting : public SettingBase {
 public:
  using SettingBase::SettingBase;

  void ReadSetting(const core::IniFile& settings) final;

 protected:
  virtual void SetDefault() = 0;

  // Sets the variable. False, and it is as it was, when the text is of no use. text: the setting's, which is there.
  virtual bool TryRead(const core::IniFile& settings, const std::string& text) = 0;

  // What the text has to be, for the log.
  virtual std::string DescribeExpected() const = 0;

 private:
  void Report(const std::string& text);

  std::string _reported;     // the text that was logged last
  bool _isReported = false;  // whether there is one
};

// A variable that holds a number, of a type that its owner knows.
struct Variable {
  void* target;
  void (*assign)(void* target, int64_t number);
};

// A whole number.
class IntegerSetting : public CheckedSetting {
 public:
  IntegerSetting(const std::string& group, const std::string& key, Variable variable, int64_t def, int64_t min,
                 int64_t max)
      : CheckedSetting(group, key), _variable(variable), _default(def), _min(min), _max(max) {}

 protected:
  void SetDefault() override { _variable.assign(_variable.target, _default); }
  bool TryRead(const core::IniFile& settings, const std::string& text) override;
  std::string DescribeExpected() const override;

 private:
  const Variable _variable;
  const int64_t _default;
  const int64_t _min;
  const int64_t _max;
};

// One of some names, each of which stands for a number.
class NamedSetting : public CheckedSetting {
 public:
  using Names = std::vector<std::pair<std::string, int64_t>>;

  NamedSetting(const std::string& group, const std::string& key, Variable variable, int64_t def, Names names)
      : CheckedSetting(group, key), _variable(variable), _default(def), _names(std::move(names)) {}

 protected:
  void SetDefault() override { _variable.assign(_variable.target, _default); }
  bool TryRead(const core::IniFile& settings, const std::string& text) override;
  std::string DescribeExpected() const override;

 private:
  const Variable _variable;
  const int64_t _default;
  const Names _names;
};

// A decimal number, with a point whatever the process's locale says.
class RealSetting : public CheckedSetting {
 public:
  RealSetting(const std::string& group, const std::string& key, double* target, double def, double min, double max)
      : CheckedSetting(group, key), _target(target), _default(def), _min(min), _max(max) {}

 protected:
  void SetDefault() override { *_target = _default; }
  bool TryRead(const core::IniFile& settings, const std::string& text) override;
  std::string DescribeExpected() const override;

 private:
  double* const _target;
  const double _default;
  const double _min;
  const double _max;
};

class BoolSetting : public CheckedSetting {
 public:
  BoolSetting(const std::string& group, const std::string& key, bool* target, bool def)
      : CheckedSetting(group, key), _target(target), _default(def) {}

 protected:
  void SetDefault() override { *_target = _default; }
  bool TryRead(const core::IniFile& settings, const std::string& text) override;
  std::string DescribeExpected() const override { return "true or false"; }

 private:
  bool* const _target;
  const bool _default;
};

// Any text.
class TextSetting : public CheckedSetting {
 public:
  TextSetting(const std::string& group, const std::string& key, std::string* target, std::string def)
      : CheckedSetting(group, key), _target(target), _default(std::move(def)) {}

 protected:
  void SetDefault() override { *_target = _default; }
  bool TryRead(const core::IniFile& settings, const std::string& text) override;
  std::string DescribeExpected() const override { return "a text"; }

 private:
  std::string* const _target;
  const std::string _default;
};

}  // namespace tavix::settings
