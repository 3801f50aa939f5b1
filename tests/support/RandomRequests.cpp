#include "tests/support/RandomRequests.h"

#include <algorithm>

namespace tavix::test {

namespace {

// Below the daemon's bounds of one connection.
constexpr size_t kMaxSubscribed = 4'000;
constexpr size_t kMaxSubscribedBytes = 250'000;
constexpr size_t kMaxPatterns = 250;
constexpr size_t kMaxListed = 20'000;
constexpr size_t kMaxMerged = 5'000;
constexpr size_t kMaxName = 4'000;
constexpr size_t kMaxValue = 500'000;

std::string PhpString(const std::string& text) {
  return "s:" + std::to_string(text.size()) + ":\"" + text + "\";";
}

}  // namespace

std::string RandomRequests::Make() {
  const size_t kind = Pick(0, 99);
  if (kind < 40) return MakeGet();
  if (kind < 75) return MakeChange();
  if (kind < 85) return MakeRemoval();
  if (kind < 95) return MakeSubscription();
  return MakeOddity();
}

size_t RandomRequests::PickCount(size_t most) {
  if (Is(0.9)) return Pick(1, std::min<size_t>(5, most));
  return Is(0.9) ? Pick(1, std::min<size_t>(200, most)) : Pick(1, most);
}

std::string RandomRequests::Letters(size_t count) {
  std::string letters(count, 'a');
  for (char& letter : letters) letter = static_cast<char>('a' + Pick(0, 25));
  return letters;
}

// Of a number of groups that keeps the store bounded.
std::string RandomRequests::MakeName() {
  std::string name = kRandomGroups + Letters(1) + "/" + std::to_string(Pick(0, 400));
  if (Is(0.002)) name += std::string(kMaxName - name.size(), 'n');
  return name;
}

std::string RandomRequests::MakePattern() {
  std::string pattern = "*";
  for (size_t parts = Pick(1, 5); parts > 0; --parts) pattern += Letters(Pick(1, 3)) + "*";
  return pattern;
}

std::string RandomRequests::MakeNames(size_t count) {
  std::string list;
  while (count-- > 0) list += MakeName() + "\n";
  return list;
}

std::string RandomRequests::MakePatterns(size_t count) {
  std::string list;
  while (count-- > 0) list += MakePattern() + "\n";
  return list;
}

std::string RandomRequests::MakeValue() {
  return Is(0.001) ? std::string(Pick(1, kMaxValue), 'v') : Letters(Pick(0, 30));
}

std::string RandomRequests::MakePayload(size_t groups) {
  std::string text = _isPhpArray ? "a:" + std::to_string(groups) + ":{" : "";
  for (size_t i = 0; i < groups; ++i) {
    const std::string name = MakeName();
    const std::string key = Letters(1);
    const std::string value = MakeValue();
    text += _isPhpArray ? PhpString(name) + "a:1:{" + PhpString(key) + PhpString(value) + "}"
                        : "[" + name + "]\n" + key + "=" + value + "\n";
  }
  return text + (_isPhpArray ? "}\n.\n" : ".\n");
}

std::string RandomRequests::MakeGet() {
  const std::string command = Is(0.8) ? "get delimited\n" : "get\n";
  if (Is(0.01)) return command + "*\n.\n";
  if (Is(0.2)) return command + MakePatterns(PickCount(kMaxPatterns)) + ".\n";
  return command + MakeNames(PickCount(kMaxListed)) + ".\n";
}

std::string RandomRequests::MakeChange() {
  if (Is(0.2)) return "test-and-merge\n" + MakePayload(PickCount(3)) + MakePayload(PickCount(kMaxMerged));
  return (Is(0.2) ? "merge nopersist\n" : "merge\n") + MakePayload(PickCount(kMaxMerged));
}

std::string RandomRequests::MakeRemoval() {
  std::string list = MakeNames(PickCount(kMaxListed));
  if (Is(0.2)) {
    for (size_t count = PickCount(20); count > 0; --count)
      list += kRandomGroups + Letters(1) + "/" + MakePattern() + "\n";
  }
  return Is(0.5) ? "restore\n" + list + ".\n" : "overwrite\n" + list + ".\n" + MakePayload(PickCount(50));
}

std::string RandomRequests::MakeSubscription() {
  const size_t count = PickCount(kMaxSubscribed);
  const std::string list = Is(0.5) ? MakeNames(count) : MakePatterns(count);
  if (_subscribed + count > kMaxSubscribed || _subscribedBytes + list.size() > kMaxSubscribedBytes) return MakeGet();
  _subscribed += count;
  _subscribedBytes += list.size();
  return "subscribe\n" + list + ".\n";
}

std::string RandomRequests::MakeOddity() {
  switch (Pick(0, 5)) {
    case 0:
      return "info subscribed\n";
    case 1:
      return Is(0.5) ? "dump\n" : "dump all\n";
    case 2:
      return "\n.\n";
    default:
      _isPhpArray = !_isPhpArray;
      return _isPhpArray ? "serialize phparray\n" : "serialize ini\n";
  }
}

}  // namespace tavix::test
