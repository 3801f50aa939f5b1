#pragma once

#include <optional>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Export.h"

namespace tavix::settings {

// The figures of shared resources, as they stand in a document, and the rules over them, which docs/resources.md has.
// A booking reads the groups, asks here what it comes to, and is written by a test-and-merge.
//
// Figures are text that any client may write: sums saturate, and what is no number is its default.
//
// Threads: as the document's.
// Owns:    not the document, which outlives it. Its figures are looked up at each call.
class TAVIX_DAEMON_EXPORT ResourceFigures {
 public:
  explicit ResourceFigures(const core::IniFile& document) : _document(document) {}
  explicit ResourceFigures(core::IniFile&& document) = delete;

  // The name that the groups of a resource begin with, and that of a consumer's group.
  static std::string GroupOf(const std::string& resource);
  static std::string GroupOf(const std::string& consumer, const std::string& resource);

  // What can't be written would seem to be booked, and so would what is not counted: more than the total would be given
  // out. No client can write a group with a restricted name. What stands below a '/' is the business of the consumer
  // before it; releasing it takes nothing from anybody.
  static bool IsWritable(const std::string& consumer, const std::string& resource);
  static bool IsCounted(const std::string& consumer);

  // Writes a consumer's booking into a document.
  static void SetUsed(const std::string& consumer, const std::string& resource, int amount, core::IniFile& document);

  std::set<std::string> GetResources() const;

  // Those that are allowed to use the resource or have a group.
  std::set<std::string> GetConsumers(const std::string& resource) const;

  int GetTotal(const std::string& resource) const;
  int GetUsed(const std::string& consumer, const std::string& resource) const;
  long long GetUsedByAll(const std::string& resource) const;

  // The limit of the consumer's own, if it has one.
  std::optional<int> GetMaxAllowed(const std::string& consumer, const std::string& resource) const;

  bool IsAuthorized(const std::string& consumer, const std::string& resource) const;

  // What the consumer may hold in all: its own booking is not subtracted. 0 for one that is not authorised; negative
  // when others hold more than the total.
  int GetAvailable(const std::string& consumer, const std::string& resource) const;

  // What is to be booked in place of the consumer's former booking: the amount, nothing when it is negative or does not
  // fit.
  std::optional<int> FindBooking(const std::string& consumer, const std::string& resource, int amount) const;

  // The same for a share of the total, in units of the resource: it is rounded up, and takes what is available when it
  // does not fit only because of that.
  std::optional<int> FindBookingOfShare(const std::string& consumer, const std::string& resource, double share) const;

 private:
  std::set<std::string> FindBookers(const std::string& resource) const;

  const core::IniFile& _document;
};

// Tells conflicts from refusals in the attempts of one booking. An attempt fails by a conflict when another client
// changed a figure meanwhile; there is no limit to these, as each means that some client has made progress. When the
// same figures are read again after each of many attempts in a row, the store refuses the write itself, because it is
// full, for example: a figure that was changed and changed back each time, at the right moment, can't be the reason.
//
// Threads: one.
// Owns:    a copy of the figures that were read last.
class TAVIX_DAEMON_EXPORT BookingAttempts {
 public:
  static constexpr int kMaxRefusals = 50;

  // An attempt on figures failed. Returns whether that counts as refused: so many attempts have failed on the same.
  [[nodiscard]] bool IsRefusedAfter(const core::IniFile& figures);

 private:
  core::IniFile _figures;
  int _refusals = 0;
};

}  // namespace tavix::settings
