#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace tavix::programs {

// Takes the values of a JSON text one after the other, as ParseJson finds them, by nlohmann's functions. Each returns
// whether to go on; what they throw ends the parser, too.
//
// Threads: one.
class JsonTaker : public nlohmann::json_sax<nlohmann::json> {
 public:
  bool binary(binary_t&) final { return false; }  // no text has any
  bool parse_error(size_t, const std::string&, const nlohmann::detail::exception& error) final;

 protected:
  // The text is not JSON, for this reason. It may throw.
  virtual void OnBadText(const std::string& reason) = 0;

  // The line of what was found last, from 1.
  size_t GetLine() const;

 private:
  friend bool ParseJson(std::string_view text, JsonTaker& taker);

  const char* _begin = nullptr;
  const char* _read = nullptr;  // up to here
};

// There is one parser for all that takes from it: it is large. Returns whether the text was parsed to its end.
bool ParseJson(std::string_view text, JsonTaker& taker);

}  // namespace tavix::programs
