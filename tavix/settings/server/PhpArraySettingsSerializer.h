#pragma once

#include "tavix/settings/server/ISettingsSerializer.h"

namespace tavix::settings::server {

// "phparray": an array of arrays of strings in the style of PHP's serialize(), which scripting front-ends read. Its
// grammar stands in docs/protocol.md. A payload carries its own length, so any byte passes unescaped.
//
// Threads: any.
// Errors:  osa::Exception with one of
//     phparray missing data (expected '%c')                 the stream ended where this character was due
//     expected: '%c' but got: '%c'                          another character stands there
//     failed to read size specification                     a count or length is no number of 32 bits
//     phparray failed to read %zu characters for string     the stream ended inside a string
class TAVIX_EXPORT PhpArraySettingsSerializer : public ISettingsSerializer {
 public:
  // Ends with two line feeds, and flushes.
  void OnSerialize(const core::IniFile& settings, const common::GroupNameMatcher& groups,
                   std::ostream& os) const override;

  bool CanWriteGroups() const override { return true; }
  void WriteBegin(std::ostream& os, size_t groups) const override;
  void WriteGroup(std::ostream& os, core::IniFile::const_iterator group) const override;
  void WriteEnd(std::ostream& os) const override;

  // Reads nothing behind the last brace.
  void OnDeserialize(std::istream& is, core::IniFile& settings) const override;

  // White space and one "." may stand between two payloads.
  void SkipPayloadEnd(std::istream& is) const override;
};

}  // namespace tavix::settings::server
