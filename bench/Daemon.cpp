#include "bench/Daemon.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "bench/Exchange.h"
#include "bench/Loopback.h"
#include "bench/SampleSettings.h"
#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

[[noreturn]] void Execute(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  execv(arguments[0], arguments.data());
  throw osa::Exception("Failed to start '%s': %s", arguments[0], std::strerror(errno));
}

// The bounds are those of a large machine, whatever this one is.
std::vector<std::string> CommandFor(const std::string& server, const std::vector<std::string>& options) {
  std::vector<std::string> command{server,           "--listen",  "127.0.0.1:0", "--all-backlogs", "536870912",
                                   "--all-requests", "268435456", "--max-store", "1073741824"};
  command.insert(command.end(), options.begin(), options.end());
  return command;
}

}  // namespace

Program::Program(std::vector<std::string> command, int core, const Environment& environment) {
  auto [outputReader, outputWriter] = MakePipe();
  auto [inputReader, inputWriter] = MakePipe();
  const int input = inputReader.Get();
  const int output = outputWriter.Get();
  _process = std::make_unique<OwnProcess>([&, input, output] {
    if (core != kAnyCore) PinToCore(core);
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
    Execute(command);
  });
  _output = std::move(outputReader);
  _input = std::move(inputWriter);
}

int PortOf(const std::string& line) {
  const size_t colon = line.rfind(':');
  const int port = colon == std::string::npos ? 0 : std::atoi(line.c_str() + colon + 1);
  if (port == 0) throw osa::Exception("A program said \"%s\" instead of its port", line.c_str());
  return port;
}

Daemon::Daemon(const std::string& server, const std::vector<std::string>& options, int core,
               const Environment& environment)
    : _program(CommandFor(server, options), core, environment), _port(PortOf(_program.ReadLine())) {}

osa::Descriptor Daemon::Connect() const {
  return ConnectToLoopback(_port);
}

std::string WriteSettingsFile(const std::string& directory, const std::string& name, int groups) {
  const std::string path = directory + "/" + name;
  std::ofstream file(path, std::ios::binary);
  file << SettingsText(groups, kKeysOfGroup);
  if (!file.flush()) throw osa::Exception("Failed to write '%s'", path.c_str());
  return path;
}

}  // namespace tavix::bench
