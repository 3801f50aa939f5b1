#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "programs/server/persistence/ChangedGroups.h"
#include "programs/server/persistence/JournalText.h"
#include "tavix/core/IniFile.h"
#include "tavix/settings/server/LayerView.h"

namespace tavix::daemon {

// The text of a change of many groups, made part by part while others go on to change them.
//
// In order: Add names groups; MakePart makes the text of some of them, until none is left; between two parts the layer
// may change, and groups that did are added again. At a moment in which none is left, Seal makes the text that of the
// layer at this moment, as far as these groups go. WriteTexts writes it.
//
// Threads: one at a time. The layer that is passed in does not change during the call.
// Errors:  std::bad_alloc; then the object is of no use.
class ChangeInParts {
 public:
  explicit ChangeInParts(size_t bytesOfAPart = 256 * 1024) : _bytesOfAPart(bytesOfAPart) {}

  void Add(ChangedGroups::Changes changes);

  // Makes the text of groups that have none, or another than in the layer, for about a part's length. False when all
  // have theirs.
  bool MakePart(const settings::server::LayerView& layer);

  // Whether nothing is to be written.
  bool IsEmpty() const { return _texts.empty() && _missing.empty() && _added.IsEmpty() && _history.empty(); }

  // Lines about trials and entries of the history, to be written before the two texts.
  void SetHistory(std::string lines) { _history = std::move(lines); }

  RecordLine Seal();

  // The sealed change's two texts, in pieces; and the change as a whole.
  void WriteTexts(const std::function<void(std::string_view)>& write) const;
  Change GetChange() const;

  // All that was added, instead of a change. Leaves nothing.
  ChangedGroups::Changes TakeBack();

 private:
  struct Text {
    bool isGone = false;
    std::string text;
  };

  core::IniFile FindExtensions() const;

  const size_t _bytesOfAPart;
  std::map<std::string, Text> _texts;
  std::set<std::string> _missing;  // groups whose text has to be made
  core::IniFile _added;            // what further groups have got
  size_t _bytes = 0;               // of all texts
  std::string _history;
  std::string _removed;     // the first text, once it is sealed
  std::string _extensions;  // how the second one ends
};

}  // namespace tavix::daemon
