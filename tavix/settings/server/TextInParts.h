#pragma once

#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/osa/Export.h"
#include "tavix/settings/server/LayerView.h"

namespace tavix::settings::server {

class GroupWalk;
class ISettingsSerializer;

// The text of a document, made part by part, between which the document may change: nobody waits for longer than a part
// takes. Parts whose groups came, went or changed since are made again; then it is the document's text.
//
// Threads: one at a time. A document that is passed in does not change during the call; between the reads of Collect it
//          may.
// Errors:  std::bad_alloc, and what the functions throw that are passed in; then the text is of no use.
class TAVIX_DAEMON_EXPORT TextInParts {
 public:
  // Calls back with the document while nobody can change it.
  using Reader = std::function<void(const std::function<void(const LayerView&)>&)>;

  // Settings text of the whole document.
  explicit TextInParts(size_t bytesOfAPart = 64 * 1024) : _bytesOfAPart(bytesOfAPart) {}

  // The groups that "walk" finds, as "serializer" writes them; it can write single groups. Both outlive the object.
  TextInParts(const GroupWalk& walk, const ISettingsSerializer& serializer, size_t bytesOfAPart = 64 * 1024)
      : _bytesOfAPart(bytesOfAPart), _pWalk(&walk), _pSerializer(&serializer) {}

  // Makes all parts, and those again whose groups changed meanwhile, until these are few, but not for ever.
  // takeChanged: the groups that changed since its last call; those that change from its last one on are left to
  // Update.
  void Collect(const Reader& readDocument, const std::function<std::set<std::string>()>& takeChanged);

  // Makes the parts again that hold these groups, or would.
  void Update(const LayerView& document, const std::set<std::string>& changedGroups);

  size_t CountGroups() const;
  size_t CountBytes() const;

  // Append all, and keep nothing.
  void MoveTo(core::StringOstream& out);
  void MoveTo(std::ostream& out);

 private:
  struct Part {
    std::string first;  // all groups from that name on, up to the next part's
    size_t groups = 0;
    std::string text;
  };

  size_t Make(const Reader& readDocument, size_t part, size_t bytes);
  bool MakePart(const LayerView& document, size_t part, size_t bytes);
  LayerView::Group Write(const LayerView& document, Part& part, LayerView::Group end, size_t bytes);
  std::set<size_t> FindParts(const std::set<std::string>& groups) const;

  const size_t _bytesOfAPart;
  const GroupWalk* const _pWalk = nullptr;                  // null: all groups
  const ISettingsSerializer* const _pSerializer = nullptr;  // null: settings text
  core::StringOstream _out;
  std::vector<Part> _parts;
};

}  // namespace tavix::settings::server
