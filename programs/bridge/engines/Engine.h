#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace tavix::bridge {

// A number that an engine gives to each change of an item. Versions of one source only grow. 0 is none: no such item,
// or an engine that has no versions (MQTT).
using Version = std::uint64_t;

// What an engine has under a key. A plain value.
struct Item {
  std::string key;
  std::optional<std::string> bytes;  // none: the key is gone
  Version version = 0;               // of the change, also of a removal
};

// There is a link. A plain value.
struct Connected {
  bool isResumed = false;  // the source is that of ConnectOptions: Follow may go on from a stored version
  std::string source;      // names the history that versions belong to, to be stored beside them; may be empty
};

// There is no link, or it came to none. A plain value.
struct Lost {
  std::string reason;  // for people: what failed, where and why; holds no credentials
};

// Everything that Follow asked for has been reported up to "version". A plain value.
struct Synced {
  Version version = 0;      // from here Follow may go on; 0: the engine is not resumable
  bool isComplete = false;  // the items since Follow, or since Reread, are all that there are: a key that was not
                            // reported does not exist. False: they are changes, or the engine can't know (MQTT).
};

// Changes were missed, such as when the history that Follow was to go on from is gone: from here on everything that
// there is gets reported anew, up to a Synced that is complete. Comes at any moment, from an engine that is resumable,
// and when Follow asks for it. A plain value.
struct Reread {};

// What became of a Put. A plain value.
struct PutDone {
  enum class Outcome {
    kDone,      // the engine has it: "version" is its version
    kConflict,  // not written: another version than the expected one is there, "present"
    kRefused,   // not written, and the same Put would fail again: "reason"
  };

  std::string key;
  Outcome outcome = Outcome::kDone;
  Version version = 0;
  Item present;        // of kConflict; when it is gone, its version is that of the source at that moment
  std::string reason;  // of kRefused, for people
};

using EngineEvent = std::variant<Connected, Lost, Item, Synced, Reread, PutDone>;

// What an engine does beyond the minimum. A plain value.
struct Capabilities {
  bool canCompareAndPut = false;  // Put heeds the expected version; otherwise each key must have one writer
  bool isResumable = false;       // Follow heeds "from"; otherwise it always reports everything
};

// What the engine's other side publishes when the link breaks. A plain value.
struct LastWill {
  std::string key;
  std::string bytes;
};

// A plain value.
struct ConnectOptions {
  std::string source;            // that of the last Connected, from wherever it was stored; empty: none
  std::optional<LastWill> will;  // of use to MQTT alone: retained, also published by Close
};

// A plain value.
struct PutOptions {
  std::optional<Version> expected;  // write only if this is the key's version; 0: if there is no such key
  std::chrono::seconds expiry{0};   // of use to MQTT alone: how long it is kept; 0: for ever
};

// The link to an existing store of keys and bytes outside of the device: all that is to be written for another one.
//
// The order of things: Connect, then Connected or Lost, one of them for each Connect. After Connected: Follow and Put
// as often as wanted, until Lost, after which everything begins again with Connect. The engine never connects again by
// itself: when to do so is the caller's business. After Lost no event of the old link follows; of each Put without its
// PutDone it is unknown whether it was carried out.
//
// Items: Follow reports the present items of all its prefixes and then changes, a key's own in their order. The same
//        item may come again, and of changes in between only the last may come. Own puts come back as items if
//        their key is followed, before or after their PutDone. Keys and bytes are what others wrote, of any form and
//        length up to the engine's limit.
// Threads: one calls. No call waits, but Close for the engine's own thread: at worst for the resolution of a host's
//          name. Events come from that one thread through an EventQueue, which is given to the constructor. When it is
//          full the thread waits and reads nothing more from its link; that link may break for it.
// Owns:    nothing that is passed in; the queue outlives the engine.
// Errors:  constructors throw osa::Exception when what they are given can't be right. All else is an event.
// Units:   times in seconds, sizes in bytes.
class Engine {
 public:
  static constexpr std::size_t kMaxInFlight = 20;  // puts without their PutDone

  virtual ~Engine() = default;

  Engine() = default;
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  virtual Capabilities GetCapabilities() const = 0;

  // Begins one attempt. A link that there is, is closed before.
  virtual void Connect(const ConnectOptions& options) = 0;

  // Ends the link and its events: none comes any more, and those that wait in the queue are dropped. Lost is not
  // reported. Does nothing without a link.
  virtual void Close() = 0;

  // Writes "bytes" under "key", or removes it; empty bytes remove it, too. False, and nothing was done: there is no
  // link, or kMaxInFlight puts are pending. Puts of one key are carried out in their order.
  [[nodiscard]] virtual bool Put(const std::string& key, const std::optional<std::string>& bytes,
                                 const PutOptions& options) = 0;

  // Follows these prefixes from now on, in place of those before. A prefix ends with "/" and stands for all below it;
  // anything else is one key. Reports what there is of those that are new, then Synced, then changes, with a Synced now
  // and then. from: changes behind this version alone, if the link is resumed and the engine still knows them, and else
  // Reread and everything; 0: everything. The first Synced comes when all changes until this call were reported, but
  // perhaps for removals of the last moments. The same prefixes as before, and 0: an engine that is resumable reports
  // them anew, behind Reread. Does nothing without a link.
  virtual void Follow(const std::vector<std::string>& prefixes, Version from) = 0;
};

}  // namespace tavix::bridge
