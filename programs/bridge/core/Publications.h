#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "programs/bridge/core/IStateStore.h"

namespace tavix::bridge {

// What was last published of a group. A plain value.
struct Publication {
  std::uint64_t version = 0;
  std::uint64_t content = 0;  // a hash
  bool isGone = false;
};

// What the device has published of its groups: versions that only grow, on the disk before anybody sees them, of an
// epoch that is the state's own.
//
// Threads: one.
// Errors:  osa::Exception of the store.
class Publications {
 public:
  // newEpoch: used if the state has none. store: outlives the object.
  Publications(IStateStore& store, const std::string& newEpoch);

  const std::string& GetEpoch() const { return _epoch; }
  const Publication* Find(const std::string& group) const;
  const std::map<std::string, Publication>& GetAll() const { return _groups; }

  // The next version of a group, with that content.
  const Publication& Advance(const std::string& group, std::uint64_t content, bool isGone);

  // Over all versions.
  std::uint64_t ComputeHash() const;

  // What was last published under another topic, by a hash; nothing: nothing was.
  std::optional<std::uint64_t> FindOther(const std::string& topic) const;
  void SetOthers(const std::map<std::string, std::optional<std::uint64_t>>& contents);  // as one commit
  const std::map<std::string, std::uint64_t>& GetOthers() const { return _others; }

 private:
  void Commit(std::vector<StateRecord> records);

  IStateStore& _store;
  std::string _epoch;
  bool _isEpochDue = false;  // it is to be kept
  std::map<std::string, Publication> _groups;
  std::map<std::string, std::uint64_t> _others;
};

}  // namespace tavix::bridge
