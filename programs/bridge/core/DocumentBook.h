#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "programs/bridge/core/IStateStore.h"
#include "programs/bridge/core/Keys.h"
#include "programs/bridge/core/Limits.h"
#include "programs/bridge/formats/DesiredDocument.h"
#include "programs/bridge/formats/Topics.h"

namespace tavix::bridge {

// Which version of which document a key's value comes from. A plain value.
struct Origin {
  DocumentName document;
  std::string epoch;
  std::uint64_t version = 0;

  bool operator==(const Origin& other) const {
    return document == other.document && epoch == other.epoch && version == other.version;
  }
};

// What a key is to be. A plain value.
struct Target {
  Origin origin;
  std::optional<std::string> value;  // nothing: no value of the user's
};

// What all documents together want. A plain value.
struct Targets {
  std::map<std::string, std::map<std::string, Target>> groups;

  // Of each document the keys that another one of its level decides, and which one.
  std::map<DocumentName, std::map<std::string, std::string>> losers;
};

// The documents of the centre: the last version of each, on the disk before it counts, and newer ones that wait for
// their moment. Documents for many devices are spread over a minute, so that not all of them change at once. They are
// bounded like groups, in number and in bytes. Of one that was released its version is remembered.
//
// Threads: one.
// Errors:  osa::Exception of the store.
class DocumentBook {
 public:
  enum class Outcome {
    kTaken,  // it is the next one
    kKnown,  // it is the one that holds already
    kStale,  // a newer one, or another one of the same version, was there
    kFull,   // there are too many
  };

  // place: of the device's topics, which is also for the spread. deviceClass: its class. What was kept for another
  // place or another class is released. store: outlives the object.
  DocumentBook(IStateStore& store, const Limits& limits, const std::string& place, const std::string& deviceClass);

  // A document that can be taken came; it becomes valid at its moment.
  Outcome Take(const DocumentName& name, const DesiredDocument& document, const std::string& bytes, Milliseconds now);

  // The centre took the document away: its keys are nobody's, and keep their values.
  void Release(const DocumentName& name);

  // Makes what is due valid. Returns the documents that are another thing than before; of those whose epoch changed,
  // "fresh" gets the name.
  std::set<DocumentName> Advance(Milliseconds now, std::set<DocumentName>& fresh);

  std::optional<Milliseconds> GetNext() const;

  Targets ComputeTargets() const;

  // The versions that hold, by name. Those that were released are not among them.
  std::map<DocumentName, Origin> GetOrigins() const;

  // Of the newest one that came, whether it holds already or not; nothing: none came.
  std::optional<std::uint64_t> FindVersion(const DocumentName& name) const;

  // Of documents that there was no room for, with their bytes: those that there is room for now, in their order.
  std::vector<DocumentName> FindFitting(const std::map<DocumentName, size_t>& refused) const;

  size_t CountWaiting() const { return _coming.size(); }

 private:
  struct Known {
    DesiredDocument document;
    std::string bytes;          // until they are on the disk
    std::uint64_t content = 0;  // a hash of its bytes
    size_t size = 0;            // their number
    bool isReleased = false;
  };
  struct Coming {
    std::optional<Known> known;  // nothing: it is released
    Milliseconds when{0};
  };

  Milliseconds FindDelay(const DocumentName& name, const DesiredDocument& document) const;
  const Known* FindNewest(const DocumentName& name) const;
  bool HasRoom(const DocumentName& name, size_t size);
  std::map<DocumentName, size_t> ListSizes() const;
  static void Shrink(Known& known);
  static StateRecord MakeRecord(const DocumentName& name, const Known& known);
  StateRecord MakePlaceRecord() const;
  void Load();
  void ReleaseOfOtherPlaces();

  IStateStore& _store;
  const Limits _limits;
  const std::string _place;
  const std::string _deviceClass;
  bool _isPlaceDue = false;  // it is to be kept
  std::map<DocumentName, Known> _known;
  std::map<DocumentName, Coming> _coming;
  size_t _maxBytes = 0;  // all documents have not more
};

}  // namespace tavix::bridge
