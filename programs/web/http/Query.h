#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavix::web {

// The parameters of a target: NAME=VALUE with '&' between them, both percent-encoded. '+' is a blank.
//
// Threads: any; it does not change.
// Errors:  Refusal, 400, for what is no percent-encoding.
class Query {
 public:
  explicit Query(const std::string& text);

  // Throws Refusal, 400, for a parameter that is not among these, and for one that stands twice. known: names with a
  // blank between them; one with a '*' behind it may be repeated.
  void RequireOnly(std::string_view known) const;

  // The first value; nothing when the parameter is missing.
  std::optional<std::string> Find(std::string_view name) const;

  // All values, in their order.
  std::vector<std::string> FindAll(std::string_view name) const;

  // The first value as one of JSON's names: "base64:..." stands for bytes. Throws Refusal, 400, when that is none, and
  // for RequireName also when the parameter is missing.
  std::optional<std::string> FindName(std::string_view name) const;
  std::string RequireName(std::string_view name) const;

  // The values as names.
  std::vector<std::string> FindNames(std::string_view name) const;

  // "1" and "true" are true; missing, "0" and "false" are false. Throws Refusal, 400, otherwise.
  bool HasFlag(std::string_view name) const;

  // A whole number from "low" to "high"; missing: "def". Throws Refusal, 400, otherwise.
  size_t FindNumber(std::string_view name, size_t low, size_t high, size_t def) const;

 private:
  std::vector<std::pair<std::string, std::string>> _parameters;
};

}  // namespace tavix::web
