#include "tavix/settings/server/OwnSubscriptions.h"

#include "tavix/settings/server/ServerEnv.h"
#include "tavix/settings/server/SubscriptionBudget.h"

namespace tavix::settings::server {

namespace {

std::string FormatExcess(const char* what, size_t count, size_t max) {
  return std::to_string(count) + what + " are more than the " + std::to_string(max) + " allowed";
}

}  // namespace

OwnSubscriptions::OwnSubscriptions(const ServerEnv& env)
    : _max(env.mostSubscriptions), _maxBytes(env.mostSubscriptionBytes), _budget(env.subscriptionBudget) {}

OwnSubscriptions::~OwnSubscriptions() {
  if (_budget) _budget->Return(_bytes);
}

std::string OwnSubscriptions::Add(const std::set<std::string>& groups) {
  if (_max == 0 && _maxBytes == 0 && !_budget) return "";
  size_t newBytes = 0;
  const size_t count = _known.GetNames().size() + _known.GetPatterns().size() + CountNew(groups, newBytes);
  const size_t bytes = _bytes + newBytes;
  if (count > _max && _max > 0) return FormatExcess(" subscriptions", count, _max);
  if (bytes > _maxBytes && _maxBytes > 0) return FormatExcess(" bytes of subscriptions", bytes, _maxBytes);
  if (_budget && !_budget->Take(newBytes)) {
    return "All subscriptions together would have more than the " + std::to_string(_budget->GetMax()) +
           " bytes allowed";
  }
  _bytes = bytes;
  _known.AddNamesAndPatterns(groups);
  return "";
}

size_t OwnSubscriptions::CountNew(const std::set<std::string>& groups, size_t& newBytes) const {
  size_t count = 0;
  for (const std::string& group : groups) {
    if (_known.GetNames().count(group) + _known.GetPatterns().count(group) > 0) continue;
    ++count;
    newBytes += group.size();
  }
  return count;
}

}  // namespace tavix::settings::server
