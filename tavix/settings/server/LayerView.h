#pragma once

#include <optional>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Export.h"

namespace tavix::settings::server {

class UserLayer;

// A document to be read, or the user settings of a store, which need not be one document. A plain value.
//
// Owns:    nothing. Valid until what it shows changes; that of a store's user settings during the call that it is
//          passed to.
// Threads: as what it shows.
class TAVIX_EXPORT LayerView {
 public:
  using Keys = core::IniFile::KeyMap;
  using Group = core::IniFile::const_iterator;

  // Implicit: wherever user settings are read, a document will do.
  LayerView(const core::IniFile& document) : _document(&document) {}
  LayerView(const UserLayer& layer);

  // Null: there is no such group.
  const Keys* FindKeys(const std::string& group) const;

  // The same as a group that can be written; empty: there is none. It need not be a place of GetDocument.
  std::optional<Group> Find(const std::string& group) const;

  // The places of all groups in ascending order of their names, of which nothing but the name may be looked at.
  Group GetBegin() const { return _document->begin(); }
  Group GetEnd() const { return _document->end(); }
  Group FindPlace(const std::string& first) const { return _document->GetGroups().lower_bound(first); }

  // place: not the end. The group with its keys.
  Group Resolve(Group place) const;

  // All of it. O(keys). Throws std::bad_alloc.
  core::IniFile Copy() const;

  // The document itself, of which GetBegin and GetEnd are the ends. The user settings of a store whose persister
  // does not need them whole lack keys there.
  const core::IniFile& GetDocument() const { return *_document; }

 private:
  const core::IniFile* _document;
  const UserLayer* _layer = nullptr;  // null: the document has all keys
};

}  // namespace tavix::settings::server
