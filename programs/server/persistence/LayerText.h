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
// Threads: one at a time. The layer does not change during a call.
// Errors:  std::bad_alloc, after which the text is of no use.
class LayerText {
 public:
  // Calls back with the layer while nobody can change it.
  using Reader = std::function<void(const std::function<void(const core::IniFile&)>&)>;

  explicit LayerText(size_t bytesOfAPart = 64 * 1024) : _bytesOfAPart(bytesOfAPart) {}

  // Adds all parts, and makes those again whose groups changed meanwhile until these are few: what is still to be made
  // again, in one go, are those of the groups that change before somebody looks next. takeChanged: which groups changed
  // since it was called before.
  void Collect(const Reader& readLayer, const std::function<std::set<std::string>()>& takeChanged);

  // Makes the parts of these groups again.
  void Update(const core::IniFile& layer, const std::set<std::string>& changedGroups);

  // Adds the next part. False when it was the last.
  bool AddPart(const core::IniFile& layer);

  // The parts that hold these groups, or would.
  std::set<size_t> FindParts(const std::set<std::string>& groups) const;

  void MakeAgain(const core::IniFile& layer, size_t part);

  size_t CountBytes() const;

  // Appends all, and keeps nothing.
  void MoveTo(core::StringOstream& out);

 private:
  struct Part {
    std::string first;  // all groups from that name on, up to the next part's
    std::string text;
  };

  const size_t _bytesOfAPart;
  core::StringOstream _out;
  std::vector<Part> _parts;
  std::string _next;  // the first group that no part has yet
};

}  // namespace tavix::daemon
