#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <functional>
#include <string>
#include <vector>

#include "tavix/c/DocumentHandle.h"
#include "tavix/c/WatchedContent.h"
#include "tests/c/ServedClient.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RefusedAllocation.h"

// The C interface while each of its allocations fails, alone and with all behind it.

namespace tavix::test {

namespace {

using c::WatchedChange;
using c::WatchedContent;
using core::IniFile;

// A call, what is done before each attempt, and what has to hold whenever it failed.
struct Attempt {
  const char* name;
  std::function<int32_t()> call;
  std::function<void()> prepare = [] {};
  std::function<void()> check = [] {};
};

// Runs the call until none of its allocations is refused: it has to end with NO_MEMORY until then, and with OK at last.
void ExpectCodes(const Attempt& attempt, bool areAllBehindIt) {
  long allocation = 0;
  bool wasRefused = true;
  for (; wasRefused; ++allocation) {
    attempt.prepare();
    int32_t code = TAVIX_INTERNAL;
    {
      const RefusedAllocation refused(allocation, areAllBehindIt);
      code = attempt.call();
    }
    wasRefused = RefusedAllocation::WasRefused();
    EXPECT_EQ(CodeOf(code), wasRefused ? "NO_MEMORY" : "OK") << attempt.name << ", allocation " << allocation;
    if (wasRefused) attempt.check();
  }
  EXPECT_GT(allocation, 1) << attempt.name << " asks for no memory";
}

void ExpectCodes(const Attempt& attempt) {
  for (const bool areAllBehindIt : {false, true}) ExpectCodes(attempt, areAllBehindIt);
}

constexpr char kLong[] = "a text that is too long to be kept inside of a string";
const char* const kNames[] = {kLong, "A*"};

int32_t FreeWhatIsMade(int32_t code, tavix_document* made) {
  tavix_document_free(made);
  return code;
}

}  // namespace

TEST(Memory, ThatRunsOutLeavesADocumentAsItWas) {
  const std::string text = std::string("[") + kLong + "]\n" + kLong + "=" + kLong + "\n";
  const std::string other = std::string("other ") + kLong;
  const std::string more = "[" + other + "]\n" + text + other + "=" + other + "\n";
  const DocumentHandle document = Document("");
  tavix_document* const d = document.get();
  const auto prepare = [&] { d->settings = DocumentOf(text); };
  const auto check = [&] { EXPECT_EQ(TextOf(document), text); };
  ExpectCodes({"new", [] {
                 tavix_document* made = nullptr;
                 const int32_t code = tavix_document_new(&made, nullptr);
                 return FreeWhatIsMade(code, made);
               }});
  ExpectCodes({"set, of a new group", [&] { return tavix_document_set_z(d, other.c_str(), kLong, kLong, nullptr); },
               prepare, check});
  ExpectCodes({"set, of a new key", [&] { return tavix_document_set_z(d, kLong, other.c_str(), kLong, nullptr); },
               prepare, check});
  ExpectCodes(
      {"set, of a key", [&] { return tavix_document_set_z(d, kLong, kLong, other.c_str(), nullptr); }, prepare, check});
  ExpectCodes({"set_group", [&] { return tavix_document_set_group_z(d, other.c_str(), nullptr); }, prepare, check});
  ExpectCodes({"unset", [&] { return tavix_document_unset_z(d, kLong, kLong, nullptr); }, prepare, check});
  ExpectCodes({"unset_group", [&] { return tavix_document_unset_group_z(d, kLong, nullptr); }, prepare, check});
  ExpectCodes({"parse", [&] { return tavix_document_parse_z(d, more.c_str(), nullptr); }, prepare, check});
}

TEST(Memory, ThatRunsOutEndsAReadingOfADocumentWithACode) {
  const DocumentHandle document = Document(std::string("[") + kLong + "]\n" + kLong + "=" + kLong + "\n");
  tavix_document* const d = document.get();
  const char* bytes = nullptr;
  const char* more = nullptr;
  size_t count = 0;
  const auto prepare = [&] { bytes = "A long text that stands before all other ones"; };
  ExpectCodes({"get", [&] { return tavix_document_get_z(d, kLong, kLong, &bytes, nullptr); }});
  ExpectCodes({"count_keys", [&] { return tavix_document_count_keys_z(d, kLong, &count, nullptr); }});
  ExpectCodes({"next_key", [&] { return tavix_document_next_key_z(d, kLong, &bytes, &more, nullptr); }, prepare});
  ExpectCodes({"next_group", [&] { return tavix_document_next_group_z(d, &bytes, nullptr); }, prepare});
  ExpectCodes({"print", [&] { return tavix_document_print_z(d, &bytes, nullptr); }});
}

TEST(Memory, ThatRunsOutEndsACallOfAClientWithACode) {
  const ReplacedDaemon daemon;
  const ClientHandle client = Open(daemon.GetAddress());
  tavix_client* const c = client.get();
  const DocumentHandle change = Document(std::string("[") + kLong + "]\n" + kLong + "=" + kLong + "\n");
  const char* value = nullptr;
  ExpectCodes({"open", [&] {
                 tavix_client* made = nullptr;
                 const int32_t code = tavix_open_z(daemon.GetAddress().c_str(), kPatient, &made, nullptr);
                 tavix_close(made);
                 return code;
               }});
  ExpectCodes({"merge", [&] { return tavix_merge(c, change.get(), 0, nullptr); }});
  ExpectCodes({"test_and_merge", [&] { return tavix_test_and_merge(c, change.get(), change.get(), nullptr); }});
  const DocumentHandle none = Document("");
  ExpectCodes({"amend", [&] {
                 return tavix_amend(c, change.get(), none.get(), change.get(), none.get(), none.get(), nullptr);
               }});
  ExpectCodes({"overwrite", [&] { return tavix_overwrite_z(c, kNames, 2, change.get(), nullptr); }});
  ExpectCodes({"get", [&] {
                 tavix_document* made = nullptr;
                 const int32_t code = tavix_get_z(c, kNames, 2, &made, nullptr);
                 return FreeWhatIsMade(code, made);
               }});
  ExpectCodes({"get_value", [&] { return tavix_get_value_z(c, kLong, kLong, &value, nullptr); }});
  EXPECT_STREQ(value, kLong);
  ExpectCodes({"erase", [&] { return tavix_erase_z(c, kNames, 2, nullptr); }});
  ExpectCodes({"restore", [&] { return tavix_restore_z(c, kNames, 2, nullptr); }});
  Flush(client);  // reports what was lost with the connections
  ExpectCodes({"flush", [&] { return tavix_flush(c, nullptr); }, [&] { GetText(client, {"A"}); }});
}

TEST(Memory, ThatRunsOutEndsTheOpeningOfAWatchWithACode) {
  const ReplacedDaemon daemon;
  EXPECT_EQ(Merge(Open(daemon.GetAddress()), std::string("[A]\nx=") + kLong + "\n"), "OK");
  for (const int32_t flags : {0, TAVIX_WATCH_INITIAL}) {
    ExpectCodes({"watch_open", [&] {
                   tavix_watch* made = nullptr;
                   const int32_t code =
                       tavix_watch_open_z(daemon.GetAddress().c_str(), kNames, 2, flags, kPatient, &made, nullptr);
                   tavix_watch_close(made);
                   return code;
                 }});
  }
}

// What was missed when memory ran out is found on the next connection, to which the descriptor leads.
TEST(Memory, ThatRunsOutLosesNoChangeOfAPollLoop) {
  const ReplacedDaemon daemon;
  const ClientHandle client = Open(daemon.GetAddress());
  tavix_watch* made = nullptr;
  ASSERT_EQ(CodeOf(tavix_watch_open_z(daemon.GetAddress().c_str(), kNames, 2, 0, kPatient, &made, nullptr)), "OK");
  const WatchHandle watch(made);
  pollfd wait{-1, POLLIN, 0};
  ASSERT_EQ(CodeOf(tavix_watch_fd(made, &wait.fd, nullptr)), "OK");
  bool wasRefused = true;
  for (long allocation = 0; wasRefused; ++allocation) {
    const std::string value = kLong + std::to_string(allocation);
    EXPECT_EQ(Merge(client, "[A]\nx=" + value + "\n"), "OK");
    ASSERT_EQ(poll(&wait, 1, kPatient), 1);
    const tavix_change* change = nullptr;
    {
      const RefusedAllocation refused(allocation);
      tavix_watch_next(made, 0, &change, nullptr);
    }
    wasRefused = RefusedAllocation::WasRefused();
    while (!change || change->kind != TAVIX_CHANGE_KEY || value != change->new_value) {
      ASSERT_EQ(poll(&wait, 1, kPatient), 1) << allocation;
      tavix_watch_next(made, 0, &change, nullptr);
    }
  }
}

// Likewise, by calls that wait.
TEST(Memory, ThatRunsOutLosesNoChangeOfAWatch) {
  const ReplacedDaemon daemon;
  const ClientHandle client = Open(daemon.GetAddress());
  tavix_watch* made = nullptr;
  ASSERT_EQ(CodeOf(tavix_watch_open_z(daemon.GetAddress().c_str(), kNames, 2, 0, kPatient, &made, nullptr)), "OK");
  const WatchHandle watch(made);
  bool wasRefused = true;
  for (long allocation = 0; wasRefused; ++allocation) {
    const std::string value = kLong + std::to_string(allocation);
    EXPECT_EQ(Merge(client, "[A]\nx=" + value + "\n"), "OK");
    const tavix_change* change = nullptr;
    {
      const RefusedAllocation refused(allocation);
      const std::string code = CodeOf(tavix_watch_next(watch.get(), kPatient, &change, nullptr));
      EXPECT_TRUE(code == "NO_MEMORY" || code == "OK") << code;
    }
    wasRefused = RefusedAllocation::WasRefused();
    while (!change || change->kind != TAVIX_CHANGE_KEY || value != change->new_value)
      ASSERT_EQ(CodeOf(tavix_watch_next(watch.get(), kPatient, &change, nullptr)), "OK");
  }
}

namespace {

// Applies what the content reports.
void ApplyAll(WatchedContent& content, IniFile& reported) {
  while (const auto change = content.TakeChange()) {
    if (change->isGone) {
      reported.RemoveGroup(change->group);
    } else if (change->now) {
      reported.SetValue(change->group, change->key, *change->now);
    } else if (change->kind == WatchedChange::Kind::kKey) {
      reported[change->group].erase(change->key);
    }
  }
}

bool Takes(WatchedContent& content, const IniFile& reading, long allocation) {
  IniFile copy(reading);
  const RefusedAllocation refused(allocation);
  try {
    content.TakeReading(std::move(copy));
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace

TEST(Memory, ThatRunsOutInAReadingIsMadeUpForByTheNextOne) {
  const std::string text(kLong);
  const IniFile before = DocumentOf("[A]\nx=" + text + "\ny=" + text + "\n[B]\nx=" + text + "\n");
  const IniFile after = DocumentOf("[A]\nx=" + text + "2\nz=" + text + "\n[C]\nx=" + text + "\n");
  bool isTaken = false;
  for (long allocation = 0; !isTaken; ++allocation) {
    WatchedContent content(false);
    IniFile reported = before;
    content.TakeReading(IniFile(before));
    isTaken = Takes(content, after, allocation);
    if (!isTaken) content.TakeReading(IniFile(after));
    ApplyAll(content, reported);
    EXPECT_EQ(TextOf(reported), TextOf(after)) << allocation;
  }
}

}  // namespace tavix::test
