#include "bench/OwnProcess.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <sstream>
#include <string>

#include "bench/DescriptorIo.h"
#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

// One figure a line, its fields separated by tabs.
std::string ToText(const std::vector<Figure>& figures) {
  std::ostringstream text;
  text.precision(17);
  for (const Figure& figure : figures) {
    text << figure.name.item << '\t' << figure.name.peer << '\t' << figure.name.variant << '\t' << figure.unit << '\t'
         << figure.median << ' ' << figure.p99 << ' ' << figure.count << '\n';
  }
  return text.str();
}

std::vector<Figure> ToFigures(const std::string& text) {
  std::vector<Figure> figures;
  std::istringstream in(text);
  Figure figure;
  while (std::getline(in, figure.name.item, '\t') && std::getline(in, figure.name.peer, '\t') &&
         std::getline(in, figure.name.variant, '\t') && std::getline(in, figure.unit, '\t') &&
         in >> figure.median >> figure.p99 >> figure.count) {
    in.ignore();
    figures.push_back(figure);
  }
  return figures;
}

}  // namespace

OwnProcess::OwnProcess(const std::function<void()>& work) {
  std::fflush(nullptr);
  _id = fork();
  if (_id < 0) throw osa::Exception("Failed to start a process: %s", std::strerror(errno));
  if (_id > 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  int status = 0;
  try {
    work();
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "tavix-bench: %s\n", exception.what());
    status = 1;
  }
  std::fflush(nullptr);
  _exit(status);
}

OwnProcess::~OwnProcess() {
  if (_ended) return;
  kill(_id, SIGKILL);
  waitpid(_id, nullptr, 0);
}

bool OwnProcess::EndedWell() {
  int status = 0;
  waitpid(_id, &status, 0);
  _ended = true;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::vector<Figure> MeasureInOwnProcess(const Setup& setup, const std::function<void(Recorder&)>& measure) {
  auto [reader, writer] = MakePipe();
  const osa::Descriptor& out = writer;
  OwnProcess process([&] {
    Recorder recorder(setup);
    measure(recorder);
    WriteAll(out, ToText(recorder.GetFigures()));
  });
  writer = osa::Descriptor();
  const std::string text = ReadToEnd(reader);
  if (!process.EndedWell()) throw osa::Exception("could not be measured");
  return ToFigures(text);
}

}  // namespace tavix::bench
