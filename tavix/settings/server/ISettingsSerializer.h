#pragma once

#include <cstddef>
#include <iosfwd>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Export.h"

namespace tavix::core {
class ViewIstream;
}

namespace tavix::settings::common {
class GroupNameMatcher;
}

namespace tavix::settings::server {

// One text form of settings on a connection. Stateless.
//
// Threads: any; one object serves all connections at once.
class TAVIX_EXPORT ISettingsSerializer {
 public:
  virtual ~ISettingsSerializer() = default;

  // Writes the groups of "settings" that "groups" matches, without a terminator.
  virtual void OnSerialize(const core::IniFile& settings, const common::GroupNameMatcher& groups,
                           std::ostream& os) const = 0;

  // Reads one payload and adds it to "settings", which is not cleared. Throws osa::Exception when it can't be parsed;
  // what came before the error may then be in "settings". A payload that the stream's end cut off leaves "is" not good.
  virtual void OnDeserialize(std::istream& is, core::IniFile& settings) const = 0;

  // Reads what may stand between one payload and the next of the same request. Nothing here.
  virtual void SkipPayloadEnd(std::istream& is) const;

  // Whether WriteBegin, WriteGroup for each group in ascending order and WriteEnd, one after the other, write what
  // OnSerialize writes. Only then a long text is made in parts, between which the settings may be changed; others are
  // made while every writer waits. Here: no, and the three write nothing.
  virtual bool CanWriteGroups() const;
  virtual void WriteBegin(std::ostream& os, size_t groups) const;
  virtual void WriteGroup(std::ostream& os, core::IniFile::const_iterator group) const;
  virtual void WriteEnd(std::ostream& os) const;

  // OnDeserialize of a payload that stands in memory. Here: that; a form that can reads the bytes without copying them.
  virtual void OnDeserializeView(core::ViewIstream& view, core::IniFile& settings) const;
};

}  // namespace tavix::settings::server
