#pragma once

#include <string>
#include <vector>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/load/WatchdogTimes.h"
#include "tests/support/Loads.h"

namespace tavix::test {

// A daemon with the store of Loads.h as its defaults, watched by a service manager.
class LoadedDaemon {
 public:
  // load: decides whether there are user settings.
  LoadedDaemon(const LoadSize& size, const Load& load, std::vector<std::string> options = {})
      : _daemon(_directory, Complete(size, load, std::move(options))) {
    _daemon.AwaitAddresses();
  }

  Daemon& Get() { return _daemon; }
  unsigned short GetPort() const { return _daemon.GetPort(); }
  const TemporaryDirectory& GetDirectory() const { return _directory; }
  const WatchdogTimes& GetWatchdogTimes() const { return _watchdogTimes; }

 private:
  std::vector<std::string> Complete(const LoadSize& size, const Load& load, std::vector<std::string> options) const {
    options.insert(options.end(), {"--defaults", _directory.Write("defaults.ini", LoadedStoreText(size.storeGroups))});
    // User settings that hide as many defaults are in memory three times.
    if (load.isSaved)
      options.insert(options.end(), {"--user-settings", _directory.Write("user.ini", LoadedStoreText(load.userGroups)),
                                     "--max-store", std::to_string(size_t{1} << 30)});
    return options;
  }

  const TemporaryDirectory _directory;
  const WatchdogTimes _watchdogTimes;
  Daemon _daemon;
};

}  // namespace tavix::test
