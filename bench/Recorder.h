#pragma once

#include <string>
#include <vector>

#include "bench/Figure.h"
#include "bench/Samples.h"

namespace tavix::bench {

// What a bench may know of the run that it is part of.
struct Setup {
  bool quick = false;     // a short look: few samples
  bool oursOnly = false;  // neither floors nor peers
  std::string directory;  // on the disk that is measured, empty at the start, shared by all benches
  std::string server;     // the daemon's program
  std::string command;    // the command's program
  std::string bridge;     // the program that mirrors to a broker of MQTT
  std::string web;        // the program of the HTTP interface
  std::string bareMap;    // the program that loads a file into a bare map
  std::string slowDisk;   // what makes a daemon's syncs slow, to be loaded first
};

// What a bench reports its figures to.
class Recorder {
 public:
  explicit Recorder(const Setup& setup) : _setup(setup) {}

  const Setup& GetSetup() const { return _setup; }

  // Whether floors are measured, too; a short look has no time for peers.
  bool WantsFloor() const { return !_setup.oursOnly; }
  bool Wants(const FigureName& name) const {
    return name.peer == kOurs || (WantsFloor() && (name.peer == kFloor || !_setup.quick));
  }

  // The number for a short look, or for a good one.
  int Choose(int quick, int full) const { return _setup.quick ? quick : full; }
  double Choose(double quick, double full) const { return _setup.quick ? quick : full; }

  void Add(Figure figure) { _figures.push_back(std::move(figure)); }
  void Add(FigureName name, const char* unit, double value) {
    Add({std::move(name), unit, value, Figure::kUnknown, 1});
  }

  // The samples' median and 99th percentile.
  void Add(FigureName name, const char* unit, const Samples& samples) {
    Add({std::move(name), unit, samples.GetMedian(), samples.GetQuantile(0.99), samples.GetCount()});
  }

  const std::vector<Figure>& GetFigures() const { return _figures; }

 private:
  const Setup& _setup;
  std::vector<Figure> _figures;
};

}  // namespace tavix::bench
