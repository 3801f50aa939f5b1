#include "bench/SampleSettings.h"

#include <utility>

namespace tavix::bench {

namespace {

std::string Padded(int number, size_t width) {
  const std::string digits = std::to_string(number);
  return std::string(digits.size() < width ? width - digits.size() : 0, '0') + digits;
}

}  // namespace

std::string GroupName(int group) {
  return "Net/Interface/G" + Padded(group, 7);
}

std::string KeyName(int key) {
  return "interface.setting" + Padded(key, 3);
}

std::string ValueText(int group, int key) {
  return "value " + Padded(group, 7) + " of setting " + Padded(key, 4) + ".";
}

std::string GroupText(int group, int keys) {
  std::string text = "[" + GroupName(group) + "]\n";
  for (int key = 0; key < keys; ++key) text += KeyName(key) + "=" + ValueText(group, key) + "\n";
  return text;
}

std::string SettingsText(int groups, int keys) {
  std::string text;
  text.reserve(static_cast<size_t>(groups) * GroupText(0, keys).size());
  for (int group = 0; group < groups; ++group) text += GroupText(group, keys);
  return text;
}

core::IniFile SettingsDocument(int groups, int keys) {
  core::IniFile::GroupMap document;
  for (int group = 0; group < groups; ++group) {
    core::IniFile::KeyMap& values = document[GroupName(group)];
    for (int key = 0; key < keys; ++key) values[KeyName(key)] = ValueText(group, key);
  }
  return core::IniFile(std::move(document));
}

int GroupsInBytes(size_t bytes, int keys) {
  return static_cast<int>(bytes / GroupText(0, keys).size());
}

}  // namespace tavix::bench
