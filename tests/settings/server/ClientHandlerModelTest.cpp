#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ISettingsSerializer.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RandomDocument.h"
#include "tests/support/ServedStore.h"

// Documents and requests of random bytes through whole connections.

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::common::GroupNameMatcher;
using tavix::test::AllSettingsOf;
using tavix::test::CapturedLog;
using tavix::test::DocumentOf;
using tavix::test::RandomDocuments;
using tavix::test::ServedStore;
using tavix::test::UserSettingsOf;

// Any document whose group names can stand on lines of their own.
IniFile NextSendable(RandomDocuments& random) {
  IniFile document;
  for (const auto& [group, keys] : random.Next()) {
    std::string name = group == "." ? ".." : group;
    std::replace(name.begin(), name.end(), '\n', '_');
    document[name] = keys;
  }
  return document;
}

std::string PayloadOf(ServedStore& served, const char* serialization, const IniFile& document) {
  GroupNameMatcher everything;
  everything.AddNameOrPattern("*");
  std::ostringstream text;
  served.serializers.GetSerializer(serialization)->OnSerialize(document, everything, text);
  return text.str() + ".\n";
}

std::string ListOf(const IniFile& document) {
  std::string list;
  for (const auto& group : document) list += group.first + '\n';
  return list + ".\n";
}

TEST(ClientHandlerModel, AnyDocumentGoesInAndComesOutUnchanged) {
  for (const char* serialization : {"ini", "phparray"}) {
    RandomDocuments random(3501);
    for (int round = 0; round < 1000; ++round) {
      ServedStore served;
      const IniFile document = NextSendable(random);
      const std::string payload = PayloadOf(served, serialization, document);
      const std::string notice = document.IsEmpty() ? "" : "async change\n" + ListOf(document) + payload;
      const std::string get = "get delimited\n" + ListOf(document);
      const std::string got = "data\n" + (document.IsEmpty() ? ".\n" : payload);
      ASSERT_EQ(served.Serve(std::string("serialize ") + serialization + "\nsubscribe\n*\n.\nmerge\n" + payload + get +
                             "test-and-merge\n" + payload + payload),
                notice + got + notice + "result\nok\n")
          << serialization << ", round " << round;
      ASSERT_EQ(DocumentOf(AllSettingsOf(served.store)).GetGroups(), document.GetGroups());
      ASSERT_EQ(DocumentOf(served.persister.GetSaved()).GetGroups(), document.GetGroups());
    }
  }
}

TEST(ClientHandlerModel, AnyDocumentReplacesAnyOther) {
  RandomDocuments random(3502);
  for (int round = 0; round < 1000; ++round) {
    ServedStore served;
    const IniFile before = NextSendable(random);
    const IniFile after = NextSendable(random);
    served.Serve("merge\n" + PayloadOf(served, "ini", before) + "overwrite\n*\n.\n" + PayloadOf(served, "ini", after));
    ASSERT_EQ(DocumentOf(AllSettingsOf(served.store)).GetGroups(), after.GetGroups()) << "round " << round;
  }
}

std::string NextRequests(RandomDocuments& random) {
  const std::vector<std::string> parts = {"get delimited\n",
                                          "get\n",
                                          "merge\n",
                                          "merge nopersist\n",
                                          "test-and-merge\n",
                                          "subscribe\n",
                                          "overwrite\n",
                                          "restore\n",
                                          "dump\n",
                                          "dump all\n",
                                          "info subscribed\n",
                                          "serialize phparray\n",
                                          "serialize ini\n",
                                          "A\n",
                                          "*\n",
                                          ".\n",
                                          ".\n",
                                          ".\n",
                                          "[A]\nx=1\n",
                                          "[Secure]\nx=1\n",
                                          "a:0:{}",
                                          "a:1:{s:1:\"A\";a:1:{s:1:\"x\";s:1:\"2\";}}\n",
                                          "a:1:{s:9:\"Trusted/X\";a:0:{}}"};
  std::string requests;
  for (size_t count = random.Below(30); count > 0; --count)
    requests += random.Below(12) == 0 ? random.NextText(10) : parts[random.Below(parts.size())];
  return requests;
}

TEST(ClientHandlerModel, AnyBytesLeaveAStoreThatServesTheNext) {
  const CapturedLog log;
  RandomDocuments random(3503);
  for (int round = 0; round < 3000; ++round) {
    ServedStore served({"[A]\nx=0\n[B]\ny=0\n"}, "", "[Secure]\nkey=1\n");
    const std::string requests = NextRequests(random);
    try {
      served.Serve(requests);
    } catch (const Exception&) {  // what can't be parsed ends its connection
    }
    const IniFile all = DocumentOf(AllSettingsOf(served.store));
    ASSERT_EQ(all["Secure"], (IniFile::KeyMap{{"key", "1"}})) << requests;
    ASSERT_FALSE(all.HasGroup("Trusted/X")) << requests;
    ASSERT_EQ(served.Serve("get delimited\nSecure\n.\n"), "data\n[Secure]\nkey=1\n.\n") << requests;
    ASSERT_EQ(served.Serve("info subscribed\n"), "Subscribed groups\n-----------------\n\n") << requests;
  }
}

}  // namespace
