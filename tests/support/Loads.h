#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

// The loads that nobody may hold a daemon up with: what their clients send, as bytes. Each stays inside the daemon's
// default bounds, or is what an unbounded client would send.
//
// Neither the daemon nor a test framework is needed here: the benches use the same loads.
namespace tavix::test {

// Clients of a load that do the same.
struct LoadClients {
  enum class Manner {
    kSubscribe,  // send their one request before the load begins, and read what comes afterwards
    kRepeat,     // send a request, await its end, send the next
    kLeave,      // connect, send a request, and close without reading, once
  };

  Manner manner;
  size_t count;
  // What the client with that number sends in that round; both begin with 0.
  std::function<std::string(size_t client, size_t round)> makeRequest;
};

struct Load {
  std::string name;
  std::string description;  // for a table
  bool isSaved;             // whether the daemon keeps user settings
  std::vector<LoadClients> clients;
  size_t userGroups = 0;  // of the store, that are user settings from the start
};

// How large a load and the store are. These are the full ones.
struct LoadSize {
  size_t storeGroups = 100'000;  // of kKeysOfLoadedGroup keys
  size_t subscribers = 450;
  size_t subscribedPatterns = 4'000;  // of one subscriber
  size_t longNames = 3'500;           // of 4,000 bytes
  size_t hugeNames = 14;              // of a megabyte, which is beyond the bound
  size_t changedGroups = 500;         // of one change that many subscribers look at
  size_t newGroups = 20'000;          // of one change that one subscriber looks at
  size_t listedPatterns = 250;        // of one request
  size_t largeMergeBytes = 59'000'000;
  size_t savedMergeBytes = 20'000'000;
  size_t abandonedBytes = 2'000'000;  // of requests whose client has left
};

constexpr int kKeysOfLoadedGroup = 5;

// The store that all loads work on: groups "Net/Interface/G0000042", keys of 20 bytes, values of 30.
std::string LoadedGroupName(size_t group);
std::string LoadedGroupText(size_t group);
std::string LoadedStoreText(size_t groups);

// A change of few bytes that makes the daemon match names with subscribed patterns: what it costs is the matching.
Load MakeLongNamesLoad(const LoadSize& size);
Load MakeManySubscribersLoad(const LoadSize& size);
Load MakeManyNewGroupsLoad(const LoadSize& size);

// Requests that work on much of the store, or bring much of it.
std::vector<Load> MakeStoreLoads(const LoadSize& size);

// One of these: requests that are long themselves.
Load MakeLargeMergesLoad(const LoadSize& size);

// A client that sends names beyond the bound of names: it is cut, and that must be all.
Load MakeUnboundedNamesLoad(const LoadSize& size);

// Clients that leave before they are answered.
Load MakeLeavingLoad(const LoadSize& size);

// All of the above.
std::vector<Load> MakeAllLoads(const LoadSize& size);

}  // namespace tavix::test
