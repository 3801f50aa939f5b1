#include "tavix/settings/server/TextInParts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <utility>

#include "tests/support/DocumentText.h"

namespace tavix::test {

using settings::server::TextInParts;

namespace {

std::string MoveOut(TextInParts& text) {
  core::StringOstream out;
  text.MoveTo(out);
  return out.GetText();
}

// Returns how often the layer was read.
int Collect(TextInParts& text, const core::IniFile& layer, const std::set<std::string>& changed = {}) {
  int reads = 0;
  const TextInParts::Reader readLayer = [&](const std::function<void(const settings::server::LayerView&)>& read) {
    ++reads;
    read(layer);
  };
  text.Collect(readLayer, [&] { return changed; });
  return reads;
}

// Of a layer whose groups are a part each, once these have changed.
int CountPartsMadeAgain(const core::IniFile& layer, const std::set<std::string>& changed) {
  TextInParts text(1);
  return Collect(text, layer, changed) - static_cast<int>(layer.GetGroups().size());
}

// Changes some groups of a layer, and notes which.
class Changes {
 public:
  explicit Changes(unsigned int seed) : _random(seed) {}

  void Make(core::IniFile& layer, size_t count, std::set<std::string>& changed) {
    while (count-- > 0) {
      const std::string group = "Group " + std::to_string(Below(60));
      changed.insert(group);
      if (Below(3) == 0) {
        layer.RemoveGroup(group);
      } else {
        layer.SetValue(group, "key" + std::to_string(Below(3)), std::string(Below(40), 'v'));
      }
    }
  }

  size_t Below(size_t limit) { return _random() % limit; }

 private:
  std::mt19937 _random;
};

}  // namespace

TEST(TextInParts, OfAnEmptyLayerIsEmpty) {
  TextInParts text;
  Collect(text, core::IniFile());
  EXPECT_EQ(text.CountBytes(), 0u);
  EXPECT_EQ(MoveOut(text), "");
}

TEST(TextInParts, OfALayerThatStandsStillIsItsText) {
  const core::IniFile layer = DocumentOf("[A]\nx=1\n[B]\ny=2\n[C]\n[D]\nz=3\n");
  for (size_t bytes = 1; bytes < 40; ++bytes) {
    TextInParts text(bytes);
    Collect(text, layer);
    EXPECT_EQ(text.CountBytes(), TextOf(layer).size());
    EXPECT_EQ(MoveOut(text), TextOf(layer)) << bytes;
  }
}

TEST(TextInParts, MakesThosePartsAgainAloneThatHoldTheChangedGroupsOrWould) {
  const core::IniFile layer = DocumentOf("[B]\nx=1\n[D]\nx=1\n[F]\nx=1\n");
  EXPECT_EQ(CountPartsMadeAgain(layer, {"A", "B", "C"}), 1);
  EXPECT_EQ(CountPartsMadeAgain(layer, {"D", "E"}), 1);
  EXPECT_EQ(CountPartsMadeAgain(layer, {"C", "Z"}), 2);
  EXPECT_EQ(CountPartsMadeAgain(layer, {}), 0);
}

TEST(TextInParts, IsCollectedWhileTheLayerChanges) {
  for (unsigned int seed = 0; seed < 300; ++seed) {
    Changes changes(seed);
    core::IniFile layer;
    std::set<std::string> changed;
    changes.Make(layer, 80, changed);
    changed.clear();
    TextInParts text(1 + changes.Below(200));
    const TextInParts::Reader readLayer = [&](const std::function<void(const settings::server::LayerView&)>& read) {
      changes.Make(layer, changes.Below(3), changed);
      read(layer);
    };
    text.Collect(readLayer, [&] { return std::exchange(changed, {}); });
    changes.Make(layer, changes.Below(4), changed);
    text.Update(layer, changed);
    ASSERT_EQ(MoveOut(text), TextOf(layer)) << seed;
  }
}

// Nobody waits for changes that never end.
TEST(TextInParts, IsCollectedInATimeThatIsBoundedAlthoughAllChangesAgainAndAgain) {
  core::IniFile layer;
  std::set<std::string> all;
  for (int i = 0; i < 100; ++i) all.insert("Group " + std::to_string(i));
  for (const std::string& group : all) layer.SetValue(group, "key", "value");
  TextInParts text(1);
  EXPECT_LE(Collect(text, layer, all), 7 * 100);
}

}  // namespace tavix::test
