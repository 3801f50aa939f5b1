#pragma once

#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/core/MemoryStream.h"

namespace tavix::daemon {

// A layer as settings text, made part by part, between which the layer may change: nobody waits for longer than a part
// takes. Parts whose groups came, went or changed since are made again; then it is the layer's text.
//
// Threads: one at a time. A layer that is passed in does not change during the call; between the reads of Collect it
// may. Errors:  std::bad_alloc, and what the functions throw that are passed in; then the text is of no use.
class LayerText {
 public:
  // Calls back with the layer while nobody can change it.
  using Reader = std::function<void(const std::function<void(const core::IniFile&)>&)>;

  explicit LayerText(size_t bytesOfAPart = 64 * 1024) : _bytesOfAPart(bytesOfAPart) {}

  // Makes all parts, and those again whose groups changed meanwhile, until these are few, but not for ever.
  // takeChanged: the groups that changed since its last call; those that change from its last one on are left to
  // Update.
  void Collect(const Reader& readLayer, const std::function<std::set<std::string>()>& takeChanged);

  // Makes the parts again that hold these groups, or would.
  void Update(const core::IniFile& layer, const std::set<std::string>& changedGroups);

  size_t CountBytes() const;

  // Appends all, and keeps nothing.
  void MoveTo(core::StringOstream& out);

 private:
  struct Part {
    std::string first;  // all groups from that name on, up to the next part's
    std::string text;
  };

  bool AddPart(const core::IniFile& layer);
  std::set<size_t> FindParts(const std::set<std::string>& groups) const;
  void MakeAgain(const core::IniFile& layer, size_t part);

  const size_t _bytesOfAPart;
  core::StringOstream _out;
  std::vector<Part> _parts;
  std::string _next;  // the first group that no part has yet
};

}  // namespace tavix::daemon
