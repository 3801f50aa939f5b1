// A program whose log follows the store: how much is written, and where to, is a group of settings, which may change
// while the program runs. Prints what its log file got, without the times.

#include <stdlib.h>

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/settings/LogManager.h"
#include "tavix/settings/TavixSettingsClient.h"

using tavix::core::IniFile;
using tavix::core::Logger;
using tavix::settings::LogManager;
using tavix::settings::TavixSettingsClient;

namespace {

constexpr char kLogGroup[] = "Logging/Lamp";
constexpr char kLevel[] = "[Logging/Lamp]log.level";

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    if (!mkdtemp(&_path[0])) throw std::runtime_error("can't make the directory " + _path);
  }
  ~TemporaryDirectory() { std::filesystem::remove_all(_path); }

  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& GetPath() const { return _path; }

 private:
  std::string _path = std::filesystem::temp_directory_path() / "log-level-XXXXXX";
};

void Work() {
  Logger* const logger = Logger::GetLogger("Lamp");
  logger->Information("brightness %d", 80);
  logger->Warning("the bulb is %d hours old", 9000);
}

// What somebody does from elsewhere while the program runs.
void SetLevelBySomebodyElse(const char* level) {
  TavixSettingsClient settings(TavixSettingsClient::SingleThreaded);
  settings.SetValue(kLevel, level);
  settings.GetValue(kLevel);  // writes have no reply: this one tells that it was carried out
}

void PrintWithoutTimes(const std::string& path) {
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) std::cout << line.substr(line.find(' ') + 1) << "\n";
}

void Follow(const std::string& directory) {
  // Whoever may write settings must not choose what a program overwrites: log files lie in this directory, or nowhere.
  Logger::SetLogFileDirectory(directory);

  // A group without a level would be given the defaults: errors only, to the system log.
  IniFile group;
  group.SetValue(kLogGroup, "log.level", "4");
  group.SetValue(kLogGroup, "log.syslog", "no");
  group.SetValue(kLogGroup, "log.file", "lamp.log");

  TavixSettingsClient settings(TavixSettingsClient::MultiThreaded);
  settings.MergeSettings(group);
  const LogManager logging(&settings, kLogGroup);

  for (const char* level : {"4", "6", "3", "4"}) {
    settings.GetValue(kLevel);  // replies come in order: the subscription is in force
    SetLevelBySomebodyElse(level);
    settings.GetValue(kLevel);  // notices come in order, too: the log manager has followed
    Work();
  }
  PrintWithoutTimes(directory + "/lamp.log");
}

}  // namespace

int main() {
  try {
    const TemporaryDirectory directory;
    Follow(directory.GetPath());
  } catch (const std::exception& exception) {
    std::cerr << "log-level: " << exception.what() << "\n";
    return EXIT_FAILURE;
  }
}
