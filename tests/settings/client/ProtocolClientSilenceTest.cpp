// The protocol client and servers that fall silent.

#include "tests/settings/client/ProtocolClientTest.h"

namespace tavix::test {

TEST_F(ProtocolClientFailure, SilenceEndsACall) {
  Answer({""});
  Client client(Patient());
  client.SetTimeouts(Impatient());
  const Exception exception = Catch([&] { client.Get({"a"}); });
  EXPECT_EQ(exception.GetReason(), Reason::kTimedOut);
  EXPECT_EQ(exception.what(), "no answer from " + GetAddress() + " within 0.05 s");
  EXPECT_TRUE(exception.WasSent());
}

TEST_F(ProtocolClientFailure, SilenceInsideOfAReplyEndsACall) {
  Answer({"data\n[a]\n"});
  Client client(Patient());
  client.SetTimeouts(Impatient());
  EXPECT_EQ(ReasonOf([&] { client.Get({"a"}); }), Reason::kTimedOut);
}

TEST_F(ProtocolClientFailure, SilenceInsideOfANoticeEndsAWaitWithoutLimit) {
  Client client(Patient());
  client.SetTimeouts(Impatient());
  ServerEnd peer = _server.Accept();
  peer.Send("async ch");
  EXPECT_EQ(ReasonOf([&] { client.AwaitNotice(std::nullopt); }), Reason::kTimedOut);
}

TEST_F(ProtocolClientFailure, ACallHasATimeOutOfItsOwn) {
  Answer({"data\n[a]\n"});
  Client client(Patient());
  client.SetTimeouts({kPatience, kShort});
  const Exception exception = Catch([&] { client.Get({"a"}); });
  EXPECT_EQ(exception.GetReason(), Reason::kTimedOut);
  EXPECT_EQ(exception.what(), "no answer from " + GetAddress() + " within 0.05 s");
}

TEST_F(ProtocolClientFailure, AServerThatSendsForEverDoesNotOutlastACall) {
  Serve([](ServerEnd& peer) {
    while (true) peer.Send("async change\na\n.\n.\n");
  });
  Client client(Patient());
  client.SetTimeouts({kPatience, kShort});
  EXPECT_EQ(ReasonOf([&] { client.Get({"a"}); }), Reason::kTimedOut);
}

TEST_F(ProtocolClientFailure, APeerThatNeverReadsEndsACall) {
  Client client(Patient());
  client.SetTimeouts(Impatient());
  const ServerEnd peer = _server.Accept();
  core::IniFile settings;
  for (int i = 0; i < 8; ++i) settings.SetValue("a", std::to_string(i), std::string(8 * 1024 * 1024, 'x'));
  const Exception exception = Catch([&] { client.Merge(settings); });
  EXPECT_EQ(exception.GetReason(), Reason::kTimedOut);
  EXPECT_TRUE(exception.WasSent());
  EXPECT_FALSE(client.IsOpen());
}

}  // namespace tavix::test
