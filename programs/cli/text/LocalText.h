#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>

#include "programs/cli/text/TextLine.h"
#include "tavix/core/IniFile.h"

namespace tavix::programs::cli {

// Settings text that a person may have written, and that is changed without losing what is not settings: comments,
// blank lines, the order of lines, their spelling and their ends stay where nothing changes; new lines end as their
// neighbours do. It may be large: besides the text only what is asked for, or changed, takes memory. A plain value.
class LocalText {
 public:
  // Whether a group is meant.
  using IsMeant = std::function<bool(const std::string& group)>;
  using TakeGroup = std::function<void(const core::IniFile& group)>;

  // source: what errors call the text. Throws Failure, kExitBadInput, for a line that is no settings text.
  LocalText(std::string text, const std::string& source);

  core::IniFile GetSettings() const;
  core::IniFile GetGroups(const IsMeant& isMeant) const;

  // The same, a group at a time, in ascending order.
  void GetEach(const IsMeant& isMeant, const TakeGroup& take) const;

  // Takes groups away, and sets what "settings" holds. Returns whether that changed anything.
  bool Change(const IsMeant& isGone, const core::IniFile& settings);

  const std::string& GetText() const { return _text; }

 private:
  // A line that counts for a key that is set.
  struct KeyLine {
    size_t number = 0;
    bool isSame = false;  // it has the value already
    bool hasReturn = false;
  };

  // Where a group that is changed has its lines.
  struct Place {
    size_t last = 0;  // of its headers and settings
    bool hasReturn = false;
    std::map<std::string, KeyLine> keys;
  };

  // What becomes of the lines.
  struct Edit {
    std::map<std::string, Place> places;
    std::map<size_t, std::string> replaced;  // by their numbers
    std::map<size_t, std::string> added;     // behind them
    std::string newLine = "\n";              // how new groups' lines end
    bool isChanged = false;
  };

  class Remaining;

  void FindPlaces(const IsMeant& isGone, const core::IniFile& settings, Edit& edit) const;
  static void PlanLines(const core::IniFile& settings, Edit& edit);
  std::string Rewrite(const IsMeant& isGone, const core::IniFile& settings, const Edit& edit) const;
  bool IsAscending() const;

  std::string _text;
};

}  // namespace tavix::programs::cli
