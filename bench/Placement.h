#pragma once

#include <vector>

namespace tavix::bench {

constexpr int kAnyCore = -1;

// Which cores client and server may use. Waking a core that sleeps can cost more than all else in a round trip: "1
// core" shows the processor time of the whole path, "2 cores" adds the wake-ups, and without a placement a measurement
// jumps between the two.
struct Placement {
  const char* name;
  int client;
  int server;
};

// Those that the machine has.
std::vector<Placement> Placements();

// Keeps the calling thread, and what it starts from now on, on one core.
void PinToCore(int core);

}  // namespace tavix::bench
