#include "bench/DurableDaemon.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "bench/Exchange.h"
#include "bench/Placement.h"
#include "bench/SampleSettings.h"
#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

constexpr int kGroup = 7;

// What a daemon that was killed left beside its file is in nobody's way.
std::string MakeDirectory(const Recorder& recorder) {
  std::string path = recorder.GetSetup().directory + "/durable-XXXXXX";
  if (!mkdtemp(path.data())) throw osa::Exception("Failed to make '%s': %s", path.c_str(), std::strerror(errno));
  return path;
}

}  // namespace

AppendedFile::AppendedFile(const std::string& directory)
    : _file(Checked(open((directory + "/floor.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600),
                    "create a file")) {}

void AppendedFile::Append() {
  WriteAll(_file, _record);
  if (fdatasync(_file.Get()) != 0) throw osa::Exception("Failed to sync a file: %s", std::strerror(errno));
}

DurableDaemon::DurableDaemon(const Recorder& recorder, const Layer& layer, const char* durability,
                             const Environment& environment, const char* historyBytes)
    : _path(WriteSettingsFile(MakeDirectory(recorder), "user.ini", GroupsInBytes(layer.bytes, kKeysOfGroup))),
      _daemon(recorder.GetSetup().server,
              {"--user-settings", _path, "--durability", durability, "--history", historyBytes}, kAnyCore,
              environment) {
  TimedExchange(_daemon.Connect(), ChangeExchange("merge", kGroup, 0));
}

}  // namespace tavix::bench
