#pragma once

#include <optional>
#include <string>

#include "programs/common/client/Session.h"
#include "tavix/settings/ResourceFigures.h"

namespace tavix::programs::cli {

// What a person asks for: a whole number, or a share of the total.
struct Amount {
  bool isShare = false;
  int number = 0;
  double percent = 0;  // whose product with the total is exact for whole numbers, as that of 0.14 and 100 is not
};

// Parses "20" and "20%". Throws Failure, kExitUsage, when the text is no amount.
Amount ParseAmount(const std::string& text);

// What booking an amount comes to; nothing when it does not fit.
std::optional<int> FindBooking(const settings::ResourceFigures& figures, const std::string& consumer,
                               const std::string& resource, const Amount& amount);

// Throws Failure, kExitUsage, when the consumer has a '/' in its name and the amount is not 0.
void RequireCounted(const std::string& consumer, const Amount& amount);

// Books for a consumer in place of its former booking, again and again until nothing changed in between. Returns what
// was booked; nothing when it does not fit. Throws Failure for what ResourceManager refuses: kExitRefused for a
// restricted name, what RequireCounted throws, and kExitNotApplied when the store refuses the write although no figure
// has changed.
std::optional<int> Book(Session& session, const std::string& consumer, const std::string& resource,
                        const Amount& amount);

}  // namespace tavix::programs::cli
