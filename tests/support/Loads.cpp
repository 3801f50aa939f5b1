#include "tests/support/Loads.h"

#include <utility>

namespace tavix::test {

namespace {

using Manner = LoadClients::Manner;

std::string Padded(size_t number, size_t width) {
  const std::string digits = std::to_string(number);
  return std::string(digits.size() < width ? width - digits.size() : 0, '0') + digits;
}

// A list of that many lines, with its end.
template <class MakeLine>
std::string List(size_t count, MakeLine makeLine) {
  std::string list;
  for (size_t i = 0; i < count; ++i) list += makeLine(i) + "\n";
  return list + ".\n";
}

// A payload of groups with one key each, whose value is the round's.
template <class MakeName>
std::string Payload(size_t groups, size_t round, MakeName makeName) {
  const std::string setting = "]\nk=" + std::to_string(round) + "\n";
  std::string payload;
  for (size_t i = 0; i < groups; ++i) payload += "[" + makeName(i) + setting;
  return payload + ".\n";
}

// Five characters that no other number has, and no name of a group.
std::string Code(size_t number) {
  constexpr char kCharacters[] = "BCDFGHJKLMPQRSTVWXYZ";
  constexpr size_t kCount = sizeof kCharacters - 1;
  std::string code(5, kCharacters[0]);
  for (char& character : code) {
    character = kCharacters[number % kCount];
    number /= kCount;
  }
  return code;
}

LoadClients Subscribers(size_t count, std::function<std::string(size_t client)> makeList) {
  return {Manner::kSubscribe, count, [=](size_t client, size_t) { return "subscribe\n" + makeList(client); }};
}

LoadClients Repeaters(size_t count, std::string request) {
  return {Manner::kRepeat, count, [=](size_t, size_t) { return request; }};
}

// Almost every place of the name is the begin of one of the subscribed patterns' texts.
std::string LongName(size_t number, size_t bytes) {
  std::string name = "Long/" + Padded(number, 7) + "/";
  while (name.size() < bytes) name += "ab";
  return name;
}

LoadClients LongNameSubscriber(const LoadSize& size) {
  return Subscribers(1, [=](size_t) {
    return List(size.subscribedPatterns, [](size_t i) { return "*ab" + std::to_string(i) + "*"; });
  });
}

// Patterns of which none matches a group of the store, and all look at much of its name.
std::string PatternsOnTheStore(const LoadSize& size) {
  return List(size.listedPatterns, [](size_t i) { return "*e*t*r*x" + std::to_string(i) + "*"; });
}

// Groups with a value of a kilobyte each.
std::string LargeMerge(size_t bytes, size_t round) {
  constexpr size_t kValue = 1000;
  const std::string setting = "]\nk=" + std::to_string(round) + std::string(kValue, 'v') + "\n";
  std::string merge = "merge\n";
  merge.reserve(bytes + kValue);
  for (size_t i = 0; merge.size() < bytes; ++i) merge += "[Bulk/G" + Padded(i, 7) + setting;
  return merge + ".\n";
}

Load LargeMerges(const char* name, size_t bytes, bool isSaved) {
  return {name,
          "merges of " + std::to_string(bytes / 1'000'000) + " MB" + (isSaved ? ", saved" : ""),
          isSaved,
          {{Manner::kRepeat, 1, [=](size_t, size_t round) { return LargeMerge(bytes, round); }}}};
}

// Every hundredth change or so brings another snapshot.
Load SnapshotsBesideWriters(const LoadSize& size) {
  const auto makeRequest = [=](size_t, size_t round) { return LargeMerge(size.savedMergeBytes / 100, round); };
  return {"snapshots", "snapshots beside a writer", true, {{Manner::kRepeat, 1, makeRequest}}, size.storeGroups};
}

}  // namespace

std::string LoadedGroupName(size_t group) {
  return "Net/Interface/G" + Padded(group, 7);
}

std::string LoadedGroupText(size_t group) {
  std::string text = "[" + LoadedGroupName(group) + "]\n";
  for (int key = 0; key < kKeysOfLoadedGroup; ++key)
    text += "interface.setting00" + std::to_string(key) + "=value " + Padded(group, 7) + " of setting 000" +
            std::to_string(key) + ".\n";
  return text;
}

std::string LoadedStoreText(size_t groups) {
  std::string text;
  for (size_t i = 0; i < groups; ++i) text += LoadedGroupText(i);
  return text;
}

Load MakeLongNamesLoad(const LoadSize& size) {
  constexpr size_t kNameBytes = 4'000;
  const auto makeRequest = [=](size_t, size_t round) {
    return "merge\n" + Payload(size.longNames, round, [](size_t i) { return LongName(i, kNameBytes); });
  };
  return {"long-names",
          "a merge of long names, 1 subscriber of many patterns",
          false,
          {LongNameSubscriber(size), {Manner::kRepeat, 1, makeRequest}}};
}

Load MakeManySubscribersLoad(const LoadSize& size) {
  const LoadClients subscribers = Subscribers(size.subscribers, [=](size_t client) {
    const size_t first = client * size.subscribedPatterns;
    return List(size.subscribedPatterns, [=](size_t i) { return "*" + Code(first + i) + "*"; });
  });
  const auto makeRequest = [=](size_t, size_t round) {
    return "merge\n" + Payload(size.changedGroups, round, [](size_t i) { return "Seen/By/All/G" + Padded(i, 7); });
  };
  return {"many-subscribers",
          "a merge of some groups, many subscribers",
          false,
          {subscribers, {Manner::kRepeat, 1, makeRequest}}};
}

Load MakeManyNewGroupsLoad(const LoadSize& size) {
  const LoadClients subscriber = Subscribers(1, [=](size_t) {
    return List(size.subscribedPatterns, [](size_t i) { return "*r*n*x" + std::to_string(i) + "*"; });
  });
  const auto makeRequest = [=](size_t, size_t round) {
    return "merge\n" + Payload(size.newGroups, round, [](size_t i) { return "Renderer/Station/x/" + Padded(i, 7); });
  };
  return {"many-groups",
          "a merge of many groups, 1 subscriber of many patterns",
          false,
          {subscriber, {Manner::kRepeat, 1, makeRequest}}};
}

std::vector<Load> MakeStoreLoads(const LoadSize& size) {
  const std::string patterns = PatternsOnTheStore(size);
  return {
      {"get-patterns", "2 clients get many patterns", false, {Repeaters(2, "get delimited\n" + patterns)}},
      {"overwrite-patterns", "overwrites of many patterns", false, {Repeaters(1, "overwrite\n" + patterns + ".\n")}},
      {"restore-patterns", "restores of many patterns", false, {Repeaters(1, "restore\n" + patterns)}},
      {"get-all", "2 clients get everything", false, {Repeaters(2, "get delimited\n*\n.\n")}},
      {"dump-all", "2 clients dump everything", false, {Repeaters(2, "dump all\n")}},
      {"restore-one", "restores of one group", false, {Repeaters(1, "restore\n" + LoadedGroupName(1) + "\n.\n")}},
      MakeLargeMergesLoad(size),
      LargeMerges("saved-merges", size.savedMergeBytes, true),
      SnapshotsBesideWriters(size),
  };
}

Load MakeLargeMergesLoad(const LoadSize& size) {
  return LargeMerges("large-merges", size.largeMergeBytes, false);
}

Load MakeUnboundedNamesLoad(const LoadSize& size) {
  constexpr size_t kNameBytes = 1'000'000;
  const auto makeRequest = [=](size_t, size_t round) {
    return "merge\n" + Payload(size.hugeNames, round, [](size_t i) { return LongName(i, kNameBytes); });
  };
  return {"unbounded-names",
          "the same with names of a megabyte",
          false,
          {LongNameSubscriber(size), {Manner::kRepeat, 1, makeRequest}}};
}

Load MakeLeavingLoad(const LoadSize& size) {
  const std::string request = "get\n*\n.\n";
  std::string requests;
  while (requests.size() < size.abandonedBytes) requests += request;
  return {"leaving", "8 clients ask for much and leave", false, {{Manner::kLeave, 8, [=](size_t, size_t) {
                                                                    return requests;
                                                                  }}}};
}

std::vector<Load> MakeAllLoads(const LoadSize& size) {
  std::vector<Load> loads{MakeUnboundedNamesLoad(size), MakeLongNamesLoad(size), MakeManySubscribersLoad(size),
                          MakeManyNewGroupsLoad(size)};
  for (Load& load : MakeStoreLoads(size)) loads.push_back(std::move(load));
  loads.push_back(MakeLeavingLoad(size));
  return loads;
}

}  // namespace tavix::test
