#include "tavix/settings/server/InfoText.h"

#include <utility>

#include "tavix/core/MemoryStream.h"

namespace tavix::settings::server {

using core::IniFile;

namespace {

std::string Escape(std::string_view text) {
  IniFile::KeyMap figures;
  figures[""] = std::string(text);
  std::string line = MakeFigureLines(std::move(figures));
  return line.substr(1, line.size() - 2);  // between "=" and the line feed
}

bool IsInsideOfCharacter(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;  // of UTF-8
}

}  // namespace

std::string MakeInfoText(std::string_view title, std::string_view lines) {
  std::string text(title);
  text.append(1, '\n').append(title.size(), '-').append(1, '\n');
  return text.append(lines).append(1, '\n');
}

std::string MakeFigureLines(IniFile::KeyMap figures) {
  IniFile document;
  document[""] = std::move(figures);
  core::StringOstream lines;
  document.SaveToStream(lines);
  return lines.GetText().substr(lines.GetText().find('\n') + 1);  // behind the header
}

std::string EscapeText(std::string_view text, size_t maxBytes) {
  return Escape(CutText(text, maxBytes));
}

std::string_view CutText(std::string_view text, size_t maxBytes) {
  std::string_view cut = text.substr(0, maxBytes);
  for (size_t bytes = Escape(cut).size(); bytes > maxBytes; bytes = Escape(cut).size())
    cut.remove_suffix((bytes - maxBytes + 3) / 4);  // an escape has four bytes at most
  while (cut.size() < text.size() && !cut.empty() && IsInsideOfCharacter(text[cut.size()])) cut.remove_suffix(1);
  return cut;
}

}  // namespace tavix::settings::server
