// The protocol client hands out the groups of a long reply while it arrives.

#include "tests/settings/client/ProtocolClientTest.h"

#include <future>
#include <stdexcept>

#include "tests/support/DocumentText.h"

namespace tavix::test {

using testing::ElementsAre;

class ProtocolClientParts : public ProtocolClientTest {
 protected:
  // What is handed out, as settings text.
  static Client::TakeGroup Into(std::vector<std::string>& parts) {
    return [&parts](const core::IniFile& part) { parts.push_back(TextOf(part)); };
  }

  std::vector<std::string> _parts;
};

TEST_F(ProtocolClientParts, EachGroupIsHandedOutWhileTheRestIsStillToCome) {
  std::promise<void> isHandedOut;
  Serve([&](ServerEnd& peer) {
    EXPECT_EQ(peer.ReadThrough(), "get delimited\na*\n.\n");
    peer.Send("async change\nx\n.\n.\ndata\n[a]\nk=1\n[a2]\n");
    isHandedOut.get_future().wait();
    peer.Send("k=\\s\n\n[a3]\n.\n");
    peer.ReadToEnd();
  });
  Client client(Patient());
  client.GetEach({"a*"}, [&](const core::IniFile& part) {
    if (_parts.empty()) isHandedOut.set_value();
    _parts.push_back(TextOf(part));
  });
  EXPECT_THAT(_parts, ElementsAre("[a]\nk=1\n", "[a2]\nk=\\s\n", "[a3]\n"));
  EXPECT_TRUE(client.AwaitNotice(std::chrono::milliseconds(0)).has_value());
}

TEST_F(ProtocolClientParts, NamesAreHandedOutAlone) {
  Answer({"data\n[a]\nk=[x]\n[b\\x5d]\n.\n", "data\n.\n"});
  Client client(Patient());
  std::vector<std::string> names;
  const auto take = [&](const std::string& name) { names.push_back(name); };
  client.GetEachName({"*"}, take);
  client.GetEachName({"none"}, take);
  EXPECT_THAT(names, ElementsAre("a", "b]"));
}

TEST_F(ProtocolClientParts, UserSettingsAreHandedOutLikewise) {
  Serve([](ServerEnd& peer) {
    EXPECT_EQ(peer.ReadThrough("dump"), "dump\n");
    peer.Send("[a]\nk=1\n[b]\n.\n");
    peer.ReadToEnd();
  });
  Client client(Patient());
  client.GetEachOfUser(Into(_parts));
  EXPECT_THAT(_parts, ElementsAre("[a]\nk=1\n", "[b]\n"));
}

TEST_F(ProtocolClientParts, TextThatCannotBeReadIsReadOverToTheNextReply) {
  Answer({"data\n[a]\nk=1\n\nnonsense\n[b]\n.\n", "data\n[c]\nk=1\n[c]\nk=2\n[d]\n.\n", "data\n[a\n[b]\n.\n",
          "data\n.\n"});
  Client client(Patient());
  const std::string reply = "the reply of " + GetAddress() + " can't be read: ";
  const Exception exception = Catch([&] { client.GetEach({"*"}, Into(_parts)); });
  EXPECT_EQ(exception.GetReason(), Reason::kUnreadable);
  EXPECT_EQ(exception.what(), reply + "settings text:4: expected \"[group]\" or \"key=value\", found \"nonsense\"");
  EXPECT_EQ(Catch([&] { client.GetEach({"*"}, Into(_parts)); }).what(), reply + "group \"c\" stands behind \"c\"");
  EXPECT_EQ(Catch([&] { client.GetEachName({"*"}, [](const std::string&) {}); }).what(),
            reply + "settings text:1: expected \"[group]\" or \"key=value\", found \"[a\"");
  EXPECT_THAT(_parts, ElementsAre("[c]\nk=1\n"));
  client.Flush();
  EXPECT_TRUE(client.IsOpen());
}

TEST_F(ProtocolClientParts, WhatTheTakerThrowsPassesThroughAndEndsTheConnection) {
  Answer({"data\n[a]\n[b]\n.\n"});
  Client client(Patient());
  EXPECT_THROW(client.GetEach({"*"}, [](const core::IniFile&) { throw std::out_of_range("x"); }), std::out_of_range);
  EXPECT_EQ(ReasonOf([&] { client.Flush(); }), Reason::kLost);
}

}  // namespace tavix::test
