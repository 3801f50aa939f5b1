// Prints one of the files of vectors beside this source, as the library answers: make-vectors text|patterns|phparray.
// A line is one vector, a JSON object; docs/clients.md has its fields.
#include <cstdio>
#include <cstring>
#include <exception>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "conformance/vectors/Inputs.h"
#include "programs/common/client/Json.h"
#include "tavix/core/IniFile.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/PhpArraySettingsSerializer.h"

namespace tavix::conformance {
namespace {

using core::IniFile;
using nlohmann::json;
using programs::NameToJson;

constexpr char kSource[] = "text";

void Print(const json& vector) {
  std::printf("%s\n", vector.dump(-1, ' ', true, json::error_handler_t::replace).c_str());
}

std::string ToHex(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const unsigned char byte : bytes) {
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 15];
  }
  return hex;
}

// What "text:LINE: TEXT" means, where an error has that form.
json ToError(const std::string& error) {
  const size_t start = std::strlen(kSource) + 1;
  const size_t end = error.find(": ", start);
  if (error.compare(0, start, std::string(kSource) + ":") != 0 || end == std::string::npos) return {{"text", error}};
  return {{"line", std::stoi(error.substr(start, end - start))}, {"text", error.substr(end + 2)}};
}

std::string ToText(const IniFile& document) {
  std::ostringstream out;
  document.SaveToStream(out);
  return out.str();
}

std::string ToPhpArray(const IniFile& document) {
  settings::common::GroupNameMatcher all;
  all.AddNameOrPattern("*");
  std::ostringstream out;
  settings::server::PhpArraySettingsSerializer().OnSerialize(document, all, out);
  return out.str();
}

void PrintText(const std::string& text) {
  json vector = {{"text", ToHex(text)}};
  try {
    IniFile document;
    document.LoadFromMemory(text, kSource);
    vector["document"] = programs::ToJson(document);
    vector["canonical"] = ToHex(ToText(document));
  } catch (const std::exception& exception) {
    vector["error"] = ToError(exception.what());
  }
  Print(vector);
}

void PrintPhpArray(const std::string& text) {
  json vector = {{"text", ToHex(text)}};
  try {
    IniFile document;
    std::istringstream in(text);
    settings::server::PhpArraySettingsSerializer().OnDeserialize(in, document);
    vector["document"] = programs::ToJson(document);
    vector["canonical"] = ToHex(ToPhpArray(document));
  } catch (const std::exception& exception) {
    vector["error"] = ToError(exception.what());
  }
  Print(vector);
}

void PrintPattern(const std::string& pattern, const std::string& name) {
  settings::common::GroupNameMatcher matcher;
  matcher.AddNameOrPattern(pattern);
  std::set<std::string> matching;
  matcher.GetMatchingGroups(std::set<std::string>{name}, matching);
  Print({{"pattern", NameToJson(pattern)}, {"name", NameToJson(name)}, {"match", !matching.empty()}});
}

void PrintTexts() {
  for (const std::string& text : TextInputs()) PrintText(text);
  // Documents of any bytes; the generator's numbers are the same everywhere.
  std::mt19937 random(1);
  for (int i = 0; i < kRandomDocuments; ++i) PrintText(ToText(RandomDocument(random)));
  for (int i = 0; i < kRandomTexts; ++i) PrintText(RandomText(random));
}

void PrintPhpArrays() {
  for (const std::string& text : PhpArrayInputs()) PrintPhpArray(text);
  std::mt19937 random(2);
  for (int i = 0; i < kRandomDocuments; ++i) PrintPhpArray(ToPhpArray(RandomDocument(random)));
}

void PrintPatterns() {
  for (const auto& [pattern, name] : PatternInputs()) PrintPattern(pattern, name);
  std::mt19937 random(3);
  for (int i = 0; i < kRandomPatterns; ++i) {
    const std::string pattern = RandomLetters(random, "ab*/");
    PrintPattern(pattern, RandomLetters(random, "ab/"));
  }
}

int Run(const std::string& kind) {
  if (kind == "text") {
    PrintTexts();
  } else if (kind == "patterns") {
    PrintPatterns();
  } else if (kind == "phparray") {
    PrintPhpArrays();
  } else {
    std::fprintf(stderr, "make-vectors: expected text, patterns or phparray, found \"%s\"\n", kind.c_str());
    return 2;
  }
  return std::fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace
}  // namespace tavix::conformance

int main(int argc, char** argv) {
  return tavix::conformance::Run(argc == 2 ? argv[1] : "");
}
