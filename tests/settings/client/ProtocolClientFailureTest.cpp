// The protocol client and servers that fall silent, end, or speak something else.

#include <random>

#include "tests/settings/client/ProtocolClientTest.h"
#include "tests/support/DocumentText.h"

namespace tavix::test {

namespace {

const char kReply[] = "async change\nb\n.\n[b]\nk=1\n.\ndata\n[a]\nk=1\n.\n";

// What a peer might send that has mixed something up.
std::string RandomLines(std::mt19937& random) {
  const std::vector<std::string> pieces{"data",   "result", "ok", "async change", ".",  "a",  "[a]", "k=1",
                                        "\x80\\", "",       "\n", "\n",           "\n", "\n", "\r\n"};
  std::string text;
  for (size_t left = random() % 40; left > 0; --left) text += pieces[random() % pieces.size()];
  return text;
}

// Makes a call whose trace throws at one of its lines. False when it has fewer lines.
bool ThrowsAtLine(const settings::client::ProtocolClient::Options& options, size_t line,
                  const std::function<void(settings::client::ProtocolClient&)>& call) {
  size_t seen = 0;
  settings::client::ProtocolClient client(options, [&](char, const std::string&) {
    if (seen++ == line) throw std::bad_alloc();
  });
  try {
    call(client);
    return false;
  } catch (const std::bad_alloc&) {
    EXPECT_FALSE(client.IsOpen()) << line;
    return true;
  }
}

}  // namespace

TEST_F(ProtocolClientFailure, AReplyThatIsCutAnywhereIsNone) {
  const std::string reply = kReply;
  const ServerThreads threads(_server, [&](ServerEnd& peer, size_t number) {
    peer.ReadThrough();
    peer.Send(reply.substr(0, number));
  });
  for (size_t i = 0; i < reply.size(); ++i) {
    Client client(Patient());
    const Exception exception = Catch([&] { client.Get({"a"}); });
    EXPECT_EQ(exception.GetReason(), Reason::kLost) << i;
    EXPECT_EQ(exception.what(), "the connection to " + GetAddress() + " was lost");
    EXPECT_TRUE(exception.WasSent());
    EXPECT_FALSE(client.IsOpen());
  }
}

TEST_F(ProtocolClientFailure, ANoticeThatIsCutAnywhereIsNone) {
  const std::string notice = "async change\na\n.\n[a]\nk=1\n.\n";
  const ServerThreads threads(_server, [&](ServerEnd& peer, size_t number) { peer.Send(notice.substr(0, number)); });
  for (size_t i = 0; i < notice.size(); ++i) {
    Client client(Patient());
    EXPECT_EQ(ReasonOf([&] { client.AwaitNotice(std::nullopt); }), Reason::kLost) << i;
  }
}

TEST_F(ProtocolClientFailure, AReplySplitAnywhereIsWhole) {
  const std::string reply = kReply;
  const ServerThreads threads(_server, [&](ServerEnd& peer, size_t number) {
    peer.ReadThrough();
    peer.Send(reply.substr(0, number));
    peer.Send(reply.substr(number));
    peer.ReadToEnd();
  });
  for (size_t i = 0; i < reply.size(); ++i) {
    Client client(Patient());
    EXPECT_EQ(TextOf(client.Get({"a"})), "[a]\nk=1\n") << i;
    EXPECT_TRUE(client.AwaitNotice(std::chrono::milliseconds(0)));
  }
}

TEST_F(ProtocolClientFailure, AWrongReplyShowsItsFirstLine) {
  Answer(
      {"HTTP/1.1 400 \x80"
       "Bad\\ Request\r\n\r\n"});
  Client client(Patient());
  const Exception exception = Catch([&] { client.Get({"a"}); });
  EXPECT_EQ(exception.GetReason(), Reason::kNotProtocol);
  EXPECT_EQ(exception.what(), GetAddress() +
                                  " does not speak the settings protocol: expected \"data\", got \"HTTP/1.1 400 "
                                  "\\x80Bad\\\\ Request\\r\"");
  EXPECT_FALSE(client.IsOpen());
}

TEST_F(ProtocolClientFailure, AReplyOfTheOtherKindIsNone) {
  const ServerThreads threads(_server, [](ServerEnd& peer, size_t) {
    peer.ReadThrough();
    peer.Send("result\nok\n");
    peer.ReadToEnd();
  });
  EXPECT_EQ(ReasonOf([] { Client(Patient()).Get({"a"}); }), Reason::kNotProtocol);
  EXPECT_EQ(ReasonOf([] { Client(Patient()).GetSubscribed(); }), Reason::kNotProtocol);
  EXPECT_EQ(ReasonOf([] { Client(Patient()).Subscribe({"a"}); }), Reason::kNotProtocol);
}

TEST_F(ProtocolClientFailure, AResultIsOkOrFailure) {
  Answer({"result\nmaybe\n"});
  Client client(Patient());
  EXPECT_EQ(ReasonOf([&] { (void)client.TestAndMerge({}, {}); }), Reason::kNotProtocol);
}

TEST_F(ProtocolClientFailure, AListOfSubscriptionsWithoutItsEndIsNone) {
  Answer({"Subscribed groups\n-----------------\na\n.\n"});
  Client client(Patient());
  EXPECT_EQ(ReasonOf([&] { client.GetSubscribed(); }), Reason::kNotProtocol);
}

TEST_F(ProtocolClientFailure, FiguresOfAServerThatHaveNoEndAreNone) {
  for (const char* reply : {"Servers\n", "Server\n-----\n", "Server\n------\na=1\n\nresult\n",
                            "Server\n------\n\ndata\n[a]\n.\n", "data\n[a]\n.\n"}) {
    ScriptedServer server;
    const ServerThreads threads(server, [&](ServerEnd& peer, size_t) {
      peer.ReadThrough();
      peer.Send(reply);
      peer.ReadToEnd();
    });
    EXPECT_EQ(ReasonOf([] { Client(Patient()).GetServerInfo(); }), Reason::kNotProtocol) << reply;
  }
}

TEST_F(ProtocolClientFailure, FiguresThatCanNotBeReadLeaveTheConnectionInStep) {
  Answer({"Server\n------\nno figure\n\ndata\n.\n", "data\n.\n"});
  Client client(Patient());
  EXPECT_EQ(ReasonOf([&] { client.GetServerInfo(); }), Reason::kUnreadable);
  client.Flush();
}

TEST_F(ProtocolClientFailure, AReplyThatNobodyAskedForIsNoNotice) {
  Client client(Patient());
  _server.Accept().Send("data\n");
  EXPECT_EQ(ReasonOf([&] { client.AwaitNotice(std::nullopt); }), Reason::kNotProtocol);
}

TEST_F(ProtocolClientFailure, AConnectionThatEndsUnderALargeRequestHintsAtTheServersLimits) {
  Serve([](ServerEnd& peer) { peer.AwaitBytes(); });
  Client client(Patient());
  const core::IniFile settings = DocumentOf("[" + std::string(5000, 'n') + "]\nk=1\n");
  client.Merge(settings);
  const Exception exception = Catch([&] { client.Flush(); });
  EXPECT_EQ(exception.GetReason(), Reason::kLost);
  EXPECT_THAT(exception.GetHint(), testing::StartsWith("a server takes names of 4 KiB"));
}

TEST_F(ProtocolClientFailure, AServerThatHasEndedIsNoticedBeforeAnythingIsSent) {
  Client client(Patient());
  ServerEnd peer = _server.Accept();
  peer.HalfClose();
  ASSERT_TRUE(AwaitEnd(client));
  const Exception exception = Catch([&] { client.Merge(DocumentOf("[a]\nk=1\n")); });
  EXPECT_EQ(exception.GetReason(), Reason::kLost);
  EXPECT_FALSE(exception.WasSent());
  EXPECT_EQ(peer.ReadToEnd(), "");
}

TEST_F(ProtocolClientFailure, AServerThatHasEndedBehindANoticeIsNoticedToo) {
  Client client(Patient());
  ServerEnd peer = _server.Accept();
  peer.Send("async change\na\n.\n.\nasync ch");
  peer.HalfClose();
  ASSERT_TRUE(AwaitEnd(client));
  EXPECT_FALSE(Catch([&] { client.Merge(DocumentOf("[a]\nk=1\n")); }).WasSent());
  EXPECT_EQ(peer.ReadToEnd(), "");
}

TEST_F(ProtocolClientFailure, AReplyBeforeTheEndOfTheConnectionCounts) {
  Serve([](ServerEnd& peer) {
    peer.ReadThrough();
    peer.Send("data\n[a]\nk=1\n.\n");
  });
  EXPECT_EQ(TextOf(Client(Patient()).Get({"a"})), "[a]\nk=1\n");
}

// Taken for the reply of the next request, it would put all later ones off by one.
TEST_F(ProtocolClientFailure, TextThatNoRequestAskedForFailsTheNextOne) {
  for (const char* stale : {"data\n[a]\n.\n", "220 mail\n", "async change\na\n.\n.\ndata\n"}) {
    Client client(Patient());
    ServerEnd peer = _server.Accept();
    peer.Send(stale);
    ASSERT_TRUE(AwaitReadable(client));
    const Exception exception = Catch([&] { client.Get({"b"}); });
    EXPECT_EQ(exception.GetReason(), Reason::kNotProtocol) << stale;
    EXPECT_FALSE(exception.WasSent());
    EXPECT_FALSE(client.IsOpen());
    EXPECT_EQ(peer.ReadToEnd(), "");
  }
}

TEST_F(ProtocolClientFailure, TextThatNoRequestAskedForIsShown) {
  Client client(Patient());
  ServerEnd peer = _server.Accept();
  peer.Send("220 mail\x80\r\n");
  ASSERT_TRUE(AwaitReadable(client));
  EXPECT_EQ(
      Catch([&] { client.Merge({}); }).what(),
      GetAddress() + " does not speak the settings protocol: sent \"220 mail\\x80\\r\", which no request asked for");
}

TEST_F(ProtocolClientFailure, AFlushThatFailsTellsOfTheWritesBeforeIt) {
  Client client(Patient());
  ServerEnd peer = _server.Accept();
  client.Merge(DocumentOf("[a]\nk=1\n"));
  peer.ReadThrough();
  peer.Close();
  ASSERT_TRUE(AwaitReadable(client));
  EXPECT_TRUE(Catch([&] { client.Flush(); }).WasSent());
  EXPECT_TRUE(Catch([&] { client.Flush(); }).WasSent()) << "and so does every later call";
}

TEST_F(ProtocolClientFailure, WritesThatAReplyConfirmedAreNotInDoubt) {
  Serve([](ServerEnd& peer) {
    peer.ReadThrough();
    peer.ReadThrough();
    peer.Send("data\n.\n");
  });
  Client client(Patient());
  client.Merge(DocumentOf("[a]\nk=1\n"));
  client.Flush();
  ASSERT_TRUE(AwaitReadable(client));
  EXPECT_FALSE(Catch([&] { client.Flush(); }).WasSent());
}

TEST_F(ProtocolClientFailure, AWriteIsNotSentAgain) {
  Client client(Patient());
  {
    ServerEnd peer = _server.Accept();
    client.Merge(DocumentOf("[a]\nk=1\n"));
    EXPECT_EQ(peer.ReadThrough(), "merge\n[a]\nk=1\n.\n");
  }
  EXPECT_EQ(ReasonOf([&] { client.Flush(); }), Reason::kLost);
  EXPECT_EQ(ReasonOf([&] { client.Flush(); }), Reason::kLost);
  EXPECT_FALSE(_server.HasWaitingConnection());
}

TEST_F(ProtocolClientFailure, EveryCallFailsAfterAFailure) {
  Answer({"wrong\n"});
  Client client(Patient());
  EXPECT_THROW(client.Get({"a"}), Exception);
  EXPECT_EQ(client.GetDescriptor(), -1);
  const std::string closed = "the connection to " + GetAddress() + " was closed after an earlier failure";
  for (const std::function<void()>& call : std::vector<std::function<void()>>{
           [&] { client.Get({"a"}); }, [&] { client.Merge({}); }, [&] { client.AwaitNotice(std::nullopt); }}) {
    const Exception exception = Catch(call);
    EXPECT_EQ(exception.GetReason(), Reason::kLost);
    EXPECT_EQ(exception.what(), closed);
    EXPECT_FALSE(exception.WasSent());
  }
}

TEST_F(ProtocolClientFailure, AReplyThatDoesNotParseLeavesTheConnectionInOrder) {
  Answer({"data\nwithout a group\n.\n", "data\n[a]\n.\n"});
  Client client(Patient());
  const Exception exception = Catch([&] { client.Get({"a"}); });
  EXPECT_EQ(exception.GetReason(), Reason::kUnreadable);
  EXPECT_THAT(exception.what(), testing::StartsWith("the reply of " + GetAddress() + " can't be read: "));
  EXPECT_EQ(TextOf(client.Get({"a"})), "[a]\n");
}

TEST_F(ProtocolClientFailure, ANoticeThatDoesNotParseSpoilsNoReply) {
  Answer({"async change\na\n.\nwithout a group\n.\ndata\n[a]\n.\n"});
  Client client(Patient());
  EXPECT_EQ(TextOf(client.Get({"a"})), "[a]\n");
  EXPECT_EQ(ReasonOf([&] { client.AwaitNotice(kPatience); }), Reason::kUnreadable);
  EXPECT_FALSE(client.AwaitNotice(std::chrono::milliseconds(0)));
}

TEST_F(ProtocolClientFailure, AReplyMayBeTooLarge) {
  Answer({"data\n[a]\nk=1\n.\n", "data\n[a]\nk=" + std::string(64, 'x') + "\n.\n"});
  Client::Options options = Patient();
  options.maxMessageBytes = 64;
  Client client(options);
  EXPECT_EQ(TextOf(client.Get({"a"})), "[a]\nk=1\n");
  const Exception exception = Catch([&] { client.Get({"a"}); });
  EXPECT_EQ(exception.GetReason(), Reason::kTooLarge);
  EXPECT_EQ(exception.what(), "the reply of " + GetAddress() + " has more than 64 bytes");
}

TEST_F(ProtocolClientFailure, ALineWithoutEndIsTooLarge) {
  Serve([](ServerEnd& peer) {
    peer.ReadThrough();
    while (true) peer.Send(std::string(64 * 1024, 'x'));
  });
  Client::Options options = Patient();
  options.maxMessageBytes = 1024 * 1024;
  Client client(options);
  EXPECT_EQ(ReasonOf([&] { client.Get({"a"}); }), Reason::kTooLarge);
}

TEST_F(ProtocolClientFailure, WhatNoLineCanHoldIsNotSent) {
  Client client(Patient());
  ServerEnd peer = _server.Accept();
  const core::IniFile settings = DocumentOf("[a\\nb]\nk=1\n");
  for (const std::function<void()>& call : std::vector<std::function<void()>>{
           [&] { client.Get({"a\nb"}); }, [&] { client.Subscribe({"."}); }, [&] { client.Merge(settings); },
           [&] { client.Overwrite({"a"}, settings); }, [&] { client.Restore({"."}); },
           [&] { (void)client.TestAndMerge(settings, {}); }, [&] { (void)client.TestAndMerge({}, settings); },
           [&] { Client::RequireSendable(settings); }, [&] { Client::RequireSendable(Groups{"."}); }})
    EXPECT_EQ(ReasonOf(call), Reason::kUsage);
  client.Restore({"sent"});
  EXPECT_EQ(peer.ReadThrough(), "restore\nsent\n.\n");
}

// The rest of the reply must not become the next one.
TEST_F(ProtocolClientFailure, ATraceThatThrowsEndsTheConnection) {
  Answer({"data\n[a]\n.\n", "data\n[b]\n.\n"});
  Client client(Patient(), [](char, const std::string& line) {
    if (line == "[a]") throw std::runtime_error("full");
  });
  EXPECT_THROW(client.Get({"a"}), std::runtime_error);
  EXPECT_FALSE(client.IsOpen());
  EXPECT_EQ(ReasonOf([&] { client.Get({"b"}); }), Reason::kLost);
}

TEST_F(ProtocolClientFailure, AnExceptionAtAnyLineOfACallEndsTheConnectionAtOnce) {
  const std::pair<std::function<void(Client&)>, std::string> calls[] = {
      {[](Client& client) { client.Get({"a"}); }, kReply},
      {[](Client& client) { client.GetUserSettings(); }, "[a]\n.\n"},
      {[](Client& client) { client.Subscribe({"a"}); }, kReply},
      {[](Client& client) { client.GetSubscribed(); }, "Subscribed groups\n-----------------\na\n\ndata\n.\n"},
      {[](Client& client) { (void)client.TestAndMerge({}, {}); }, "result\nok\n"},
      {[](Client& client) { client.Merge({}); }, ""}};
  for (const auto& [call, reply] : calls) {
    const ScriptedServer server;
    const ServerThreads threads(server, [&text = reply](ServerEnd& peer, size_t) {
      peer.AwaitBytes();
      peer.Send(text);
      peer.ReadToEnd();
    });
    size_t failures = 0;
    while (ThrowsAtLine(Patient(), failures, call)) ++failures;
    EXPECT_GE(failures, 2U) << reply;
  }
}

TEST_F(ProtocolClientFailure, AProgressThatThrowsEndsTheConnectionAtOnce) {
  Client client(Patient());
  client.SetProgress([](size_t, size_t) { throw std::runtime_error("full"); });
  EXPECT_THROW(client.Merge({}), std::runtime_error);
  EXPECT_FALSE(client.IsOpen());
}

// Whatever a peer sends, a call ends, with a reply or a failure.
TEST_F(ProtocolClientFailure, GarbageEndsACall) {
  std::mt19937 random(7);
  std::vector<std::string> replies;
  for (int i = 0; i < 300; ++i) replies.push_back(RandomLines(random));
  const ServerThreads threads(_server, [&](ServerEnd& peer, size_t number) { peer.Send(replies[number]); });
  size_t failures = 0;
  for (size_t i = 0; i < replies.size(); ++i) {
    Client client(Patient());
    try {
      client.Get({"a"});
      while (client.AwaitNotice(std::nullopt)) continue;
    } catch (const Exception& exception) {
      ++failures;
      EXPECT_NE(exception.GetReason(), Reason::kTimedOut) << replies[i];
    }
  }
  EXPECT_EQ(failures, replies.size());
}

}  // namespace tavix::test
