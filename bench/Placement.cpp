#include "bench/Placement.h"

#include <sched.h>

#include <cerrno>
#include <cstring>

#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

std::vector<int> AllowedCores() {
  cpu_set_t set;
  CPU_ZERO(&set);
  sched_getaffinity(0, sizeof set, &set);
  std::vector<int> cores;
  for (int core = 0; core < CPU_SETSIZE; ++core) {
    if (CPU_ISSET(core, &set)) cores.push_back(core);
  }
  return cores;
}

}  // namespace

std::vector<Placement> Placements() {
  const std::vector<int> cores = AllowedCores();
  if (cores.empty()) return {};
  std::vector<Placement> placements{{"1 core", cores[0], cores[0]}};
  if (cores.size() > 1) placements.push_back({"2 cores", cores[0], cores[1]});
  return placements;
}

void PinToCore(int core) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(core, &set);
  if (sched_setaffinity(0, sizeof set, &set) != 0)
    throw osa::Exception("Failed to use core %d alone: %s", core, std::strerror(errno));
}

}  // namespace tavix::bench
