#include "programs/cli/session/Bookings.h"

#include <cmath>
#include <cstdlib>

#include "programs/common/client/Failure.h"
#include "programs/common/client/Resources.h"
#include "programs/common/client/Spelling.h"
#include "programs/common/client/Writes.h"
#include "tavix/core/StringUtil.h"

namespace tavix::programs::cli {

using core::IniFile;
using settings::BookingAttempts;
using settings::ResourceFigures;

Amount ParseAmount(const std::string& text) {
  Amount amount;
  if (core::StringUtil::TryParse(text, amount.number)) return amount;
  char* end = nullptr;
  const double percent = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || std::string(end) != "%" || !std::isfinite(percent))
    throw Failure(kExitUsage, "'" + SpellValue(text) +
                                  "' is no amount: expected a whole number, such as 20, or a share "
                                  "of the total, such as 20%");
  amount.isShare = true;
  amount.percent = percent;
  return amount;
}

std::optional<int> FindBooking(const ResourceFigures& figures, const std::string& consumer, const std::string& resource,
                               const Amount& amount) {
  if (!amount.isShare) return figures.FindBooking(consumer, resource, amount.number);
  return figures.FindBookingOfShare(consumer, resource, amount.percent * figures.GetTotal(resource) / 100);
}

namespace {

bool IsZero(const Amount& amount) {
  return amount.isShare ? amount.percent == 0 : amount.number == 0;
}

[[noreturn]] void FailRefused(const std::string& consumer, const std::string& resource) {
  throw Failure(kExitNotApplied,
                "not applied: the server refused " + std::to_string(BookingAttempts::kMaxRefusals) +
                    " times to book '" + SpellName(resource) + "' for '" + SpellName(consumer) +
                    "', and no figure had changed",
                "its store may be full: see its log, and the option --max-store");
}

}  // namespace

void RequireCounted(const std::string& consumer, const Amount& amount) {
  if (!IsZero(amount) && !ResourceFigures::IsCounted(consumer))
    throw Failure(kExitUsage, "'" + SpellName(consumer) + "' is no consumer: a booking below a '/' is not counted");
}

std::optional<int> Book(Session& session, const std::string& consumer, const std::string& resource,
                        const Amount& amount) {
  RequireCounted(consumer, amount);
  const std::string group = ResourceFigures::GroupOf(consumer, resource);
  RefuseRestricted(session, {group});
  if (!ResourceFigures::IsWritable(consumer, resource))  // of a file, too: who uses it as a store could not release it
    throw Failure(kExitRefused, "refused: '" + SpellName(group) + "' is a restricted group");
  BookingAttempts attempts;
  while (true) {
    const IniFile read = session.Get({ResourceFigures::GroupOf(resource) + "*"});
    const std::optional<int> booking = FindBooking(ResourceFigures(read), consumer, resource, amount);
    if (!booking) return std::nullopt;
    IniFile written;
    ResourceFigures::SetUsed(consumer, resource, *booking, written);
    if (TryMergeIf(session, read, written)) return booking;
    if (attempts.IsRefusedAfter(read)) FailRefused(consumer, resource);
  }
}

}  // namespace tavix::programs::cli
