#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/DescriptorIo.h"
#include "bench/OwnProcess.h"
#include "bench/Placement.h"

namespace tavix::bench {

using Environment = std::vector<std::pair<std::string, std::string>>;

// A program that runs until this object ends.
class Program {
 public:
  // command: path and arguments. core: the only one that it may use. environment: variables and their values.
  Program(std::vector<std::string> command, int core, const Environment& environment = {});

  pid_t GetId() const { return _process->GetId(); }

  // Waits for the next line that it prints.
  std::string ReadLine() const { return bench::ReadLine(_output); }

 private:
  osa::Descriptor _output;
  osa::Descriptor _input;  // the writing end: the program's input lasts as long as this object
  std::unique_ptr<OwnProcess> _process;
};

// The port of the address at the end of a line in which a program says that it listens.
int PortOf(const std::string& line);

// The settings daemon, serving on a loopback port that the kernel picked.
class Daemon {
 public:
  // options: beside the address. Returns once it listens.
  Daemon(const std::string& server, const std::vector<std::string>& options, int core = kAnyCore,
         const Environment& environment = {});

  pid_t GetId() const { return _program.GetId(); }
  int GetPort() const { return _port; }
  osa::Descriptor Connect() const;

 private:
  Program _program;
  int _port;
};

// Writes the sample settings' first groups, of kKeysOfGroup keys each, to a new file and returns its path.
std::string WriteSettingsFile(const std::string& directory, const std::string& name, int groups);

}  // namespace tavix::bench
