#pragma once

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace tavix::test {

// The seeds from "first" to "last" of a test with random events; its messages name the seed that failed. A plain value.
struct Seeds {
  unsigned int first = 1;
  unsigned int last = 1;
};

// So many seeds from 1 on, unless TAVIX_TEST_SEEDS says otherwise: FIRST-LAST, or one seed alone.
inline Seeds ChooseSeeds(unsigned int count) {
  const char* const given = std::getenv("TAVIX_TEST_SEEDS");
  if (given == nullptr) return {1, count};
  const std::string text = given;
  const size_t middle = text.find('-');
  const std::string last = middle == std::string::npos ? text : text.substr(middle + 1);
  const auto read = [&text](const std::string& number) {
    if (number.empty() || number.size() > 9 || number.find_first_not_of("0123456789") != std::string::npos)
      throw std::runtime_error("TAVIX_TEST_SEEDS is '" + text + "'; expected FIRST-LAST or one number");
    return static_cast<unsigned int>(std::stoul(number));
  };
  const Seeds seeds{read(text.substr(0, middle)), read(last)};
  if (seeds.first > seeds.last) throw std::runtime_error("TAVIX_TEST_SEEDS is '" + text + "': no seed");
  return seeds;
}

}  // namespace tavix::test
