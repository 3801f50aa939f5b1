#include "programs/web/http/Query.h"

#include <algorithm>
#include <charconv>

#include "programs/common/client/Join.h"
#include "programs/common/client/Json.h"
#include "programs/web/http/Refusal.h"

namespace tavix::web {

namespace {

int ValueOfDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string Decode(const std::string& text) {
  std::string bytes;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '%') {
      bytes += text[at] == '+' ? ' ' : text[at];
      continue;
    }
    const int high = at + 2 < text.size() ? ValueOfDigit(text[at + 1]) : -1;
    const int low = at + 2 < text.size() ? ValueOfDigit(text[at + 2]) : -1;
    if (high < 0 || low < 0) Refuse(400, "the query holds a '%' without two hexadecimal digits");
    bytes += static_cast<char>(high * 16 + low);
    at += 2;
  }
  return bytes;
}

std::string ReadName(std::string_view parameter, const std::string& text) {
  std::optional<std::string> name = programs::NameFromJson(text);
  if (!name) Refuse(400, {parameter, ": what stands behind 'base64:' is none"});
  return *std::move(name);
}

}  // namespace

Query::Query(const std::string& text) {
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('&', at), text.size());
    const std::string part = text.substr(at, end - at);
    at = end + 1;
    if (part.empty()) continue;
    const size_t equals = part.find('=');
    _parameters.emplace_back(Decode(part.substr(0, equals)),
                             equals == std::string::npos ? std::string() : Decode(part.substr(equals + 1)));
  }
}

void Query::RequireOnly(std::string_view known) const {
  const std::string words = programs::Join({" ", known, " "});
  for (const auto& [name, value] : _parameters) {
    const bool isPlain = name.find_first_of(" *") == std::string::npos;
    if (isPlain && words.find(programs::Join({" ", name, "* "})) != std::string::npos) continue;
    if (!isPlain || words.find(programs::Join({" ", name, " "})) == std::string::npos)
      Refuse(400, {"the query holds '", name, "', which this request does not have"});
    if (FindAll(name).size() > 1) Refuse(400, {"the parameter '", name, "' stands twice"});
  }
}

std::optional<std::string> Query::Find(std::string_view name) const {
  for (const auto& [parameter, value] : _parameters) {
    if (parameter == name) return value;
  }
  return std::nullopt;
}

std::vector<std::string> Query::FindAll(std::string_view name) const {
  std::vector<std::string> values;
  for (const auto& [parameter, value] : _parameters) {
    if (parameter == name) values.push_back(value);
  }
  return values;
}

std::optional<std::string> Query::FindName(std::string_view name) const {
  const std::optional<std::string> text = Find(name);
  if (!text) return std::nullopt;
  return ReadName(name, *text);
}

std::string Query::RequireName(std::string_view name) const {
  std::optional<std::string> found = FindName(name);
  if (!found) Refuse(400, {"the parameter '", name, "' is missing"});
  return *std::move(found);
}

std::vector<std::string> Query::FindNames(std::string_view name) const {
  std::vector<std::string> names;
  for (const std::string& text : FindAll(name)) names.push_back(ReadName(name, text));
  return names;
}

bool Query::HasFlag(std::string_view name) const {
  const std::string value = Find(name).value_or("0");
  if (value == "1" || value == "true") return true;
  if (value == "0" || value == "false") return false;
  Refuse(400, {"the parameter '", name, "' is neither 1 nor 0"});
}

size_t Query::FindNumber(std::string_view name, size_t low, size_t high, size_t def) const {
  const std::optional<std::string> text = Find(name);
  if (!text) return def;
  size_t number = 0;
  const char* const last = text->data() + text->size();
  const auto [end, error] = std::from_chars(text->data(), last, number);
  if (error != std::errc() || end != last || number < low || number > high)
    Refuse(400, {"the parameter '", name, "' is no number from ", std::to_string(low), " to ", std::to_string(high)});
  return number;
}

}  // namespace tavix::web
