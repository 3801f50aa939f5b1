#pragma once

#include <cstddef>
#include <random>
#include <string>

namespace tavix::test {

// Requests of one connection, one after the other, of every kind that the protocol has. All stay inside the daemon's
// default bounds. They change groups whose names begin with kRandomGroups, and no others; they read whatever there is.
class RandomRequests {
 public:
  static constexpr char kRandomGroups[] = "rand/";

  // random: borrowed for as long as this lives.
  explicit RandomRequests(std::mt19937& random) : _random(random) {}

  std::string Make();

 private:
  bool Is(double probability) { return std::bernoulli_distribution(probability)(_random); }
  size_t Pick(size_t least, size_t most) { return std::uniform_int_distribution<size_t>(least, most)(_random); }

  // Mostly small, at times up to the largest.
  size_t PickCount(size_t most);

  std::string Letters(size_t count);
  std::string MakeName();
  std::string MakePattern();
  std::string MakeNames(size_t count);
  std::string MakePatterns(size_t count);
  std::string MakeValue();
  std::string MakePayload(size_t groups);
  std::string MakeGet();
  std::string MakeChange();
  std::string MakeRemoval();
  std::string MakeSubscription();
  std::string MakeOddity();

  std::mt19937& _random;
  bool _isPhpArray = false;  // the connection's serialization
  size_t _subscribed = 0;    // names and patterns
  size_t _subscribedBytes = 0;
};

}  // namespace tavix::test
