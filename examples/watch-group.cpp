// Watches a group and prints each value that changes, old -> new. Ends after that many values have changed.
//
//     watch-group GROUP CHANGES [KEY=VALUE...]
//
// The values given are set by a second client while the first one watches, so that there is something to see. Without
// them somebody else has to change the group.

#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <mutex>
#include <queue>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include "tavix/settings/TavixSettingsClient.h"

using tavix::core::IniFile;
using tavix::settings::IChangeCallback;
using tavix::settings::SettingLocator;
using tavix::settings::TavixSettingsClient;

namespace {

// Callbacks run on the client's own thread, which receives everything else as well: this one only hands over.
class Notices : public IChangeCallback {
 public:
  void OnChange(const std::set<std::string>&, const IniFile& settings) override {
    std::lock_guard<std::mutex> lock(_mutex);
    _waiting.push(settings);
    _arrived.notify_one();
  }

  IniFile WaitForNext() {
    std::unique_lock<std::mutex> lock(_mutex);
    _arrived.wait(lock, [this] { return !_waiting.empty(); });
    IniFile next = std::move(_waiting.front());
    _waiting.pop();
    return next;
  }

 private:
  std::mutex _mutex;  // guards what follows
  std::condition_variable _arrived;
  std::queue<IniFile> _waiting;
};

void SetValues(const std::string& group, char** first, char** last) {
  TavixSettingsClient settings(TavixSettingsClient::SingleThreaded);
  for (char** argument = first; argument != last; ++argument) {
    const std::string text = *argument;
    const size_t equals = text.find('=');
    if (equals == std::string::npos) throw std::invalid_argument("expected KEY=VALUE, found " + text);
    settings.SetValue(SettingLocator(group, text.substr(0, equals)), text.substr(equals + 1));
  }
}

// A key that is only on one side was added or removed. Returns how many values differ.
int PrintChanges(const IniFile::KeyMap& before, const IniFile::KeyMap& now) {
  std::set<std::string> keys;
  for (const auto& entry : before) keys.insert(entry.first);
  for (const auto& entry : now) keys.insert(entry.first);
  const auto textOf = [](const IniFile::KeyMap& values, const std::string& key) {
    const auto found = values.find(key);
    return found == values.end() ? "none" : "'" + found->second + "'";
  };
  int changes = 0;
  for (const std::string& key : keys) {
    if (textOf(before, key) == textOf(now, key)) continue;
    std::cout << key << ": " << textOf(before, key) << " -> " << textOf(now, key) << std::endl;
    ++changes;
  }
  return changes;
}

void Watch(const std::string& group, int changes, char** first, char** last) {
  Notices notices;  // outlives the client that calls it
  TavixSettingsClient settings(TavixSettingsClient::MultiThreaded);

  // Subscribing first and reading then misses nothing. The reply to the reading also tells that the subscription is in
  // force, because a connection's requests are handled in order.
  settings.Subscribe(&notices, group);
  IniFile known;
  settings.GetSettings(group, known);

  SetValues(group, first, last);
  while (changes > 0) {
    IniFile next = notices.WaitForNext();
    changes -= PrintChanges(known[group], next[group]);
    known = std::move(next);
  }
  settings.UnSubscribe(&notices);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "Usage: watch-group GROUP CHANGES [KEY=VALUE...]\n";
    return EXIT_FAILURE;
  }
  try {
    Watch(argv[1], std::atoi(argv[2]), argv + 3, argv + argc);
  } catch (const std::exception& exception) {
    std::cerr << "watch-group: " << exception.what() << "\n";
    return EXIT_FAILURE;
  }
}
