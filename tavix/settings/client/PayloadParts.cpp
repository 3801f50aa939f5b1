#include "tavix/settings/client/PayloadParts.h"

#include <string_view>
#include <utility>

#include "tavix/osa/Exception.h"

namespace tavix::settings::client {

using core::IniFile;

namespace {

bool IsHeader(const std::string& line) {
  const size_t begin = line.find_first_not_of(" \t");
  return begin != std::string::npos && line[begin] == '[';
}

// An empty line counts, too.
void Read(core::SettingsTextReader& reader, const std::string& line) {
  const std::string_view text = line.empty() ? std::string_view("\n") : line;
  reader.ReadLines(text.data(), text.data() + text.size());
}

}  // namespace

std::optional<IniFile> PayloadGroups::ReadLine(const std::string& line) {
  std::optional<IniFile> group;
  if (!_error.empty()) return group;
  try {
    if (IsHeader(line)) group = TakeGroup();
    Read(_reader, line);
  } catch (const osa::Exception& exception) {
    _error = exception.what();
  }
  return group;
}

std::optional<IniFile> PayloadGroups::Finish() {
  return ReadLine("[]");  // what any header ends
}

std::optional<IniFile> PayloadGroups::TakeGroup() {
  IniFile group(_reader.TakeGroups());
  if (group.IsEmpty()) return std::nullopt;
  const std::string& name = group.begin()->first;
  if (_last && name <= *_last)
    throw osa::Exception("group \"%s\" stands behind \"%s\"", core::PrintableText(name, 80).c_str(),
                         core::PrintableText(*_last, 80).c_str());
  _last = name;
  return group;
}

std::optional<std::string> PayloadNames::ReadLine(const std::string& line) {
  try {
    if (_error.empty()) Read(_reader, line);
  } catch (const osa::Exception& exception) {
    _error = exception.what();
  }
  return std::exchange(_name, std::nullopt);
}

}  // namespace tavix::settings::client
