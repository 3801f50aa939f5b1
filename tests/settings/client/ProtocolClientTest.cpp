// The protocol client and a server that keeps to the protocol.

#include "tests/settings/client/ProtocolClientTest.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <csignal>
#include <stdexcept>
#include <string>
#include <utility>

#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/Environment.h"
#include "tests/support/FullListener.h"
#include "tests/support/NoMoreDescriptors.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

namespace {

using testing::ElementsAre;

const char kNotice[] = "async change\na\n.\n[a]\nk=2\n.\n";

// Two lists or payloads, with what is in front of them.
std::string ReadTwoParts(ServerEnd& peer) {
  std::string text = peer.ReadThrough();
  return text += peer.ReadThrough();
}

// Why no connection to the peer could be made, and the text of it.
std::pair<settings::client::ProtocolException::Reason, std::string> FailToConnect(const ListeningSocket& peer) {
  settings::client::ProtocolClient::Options options;
  options.address = "127.0.0.1:" + std::to_string(peer.GetPort());
  try {
    const settings::client::ProtocolClient client(options);
  } catch (const settings::client::ProtocolException& exception) {
    return {exception.GetReason(), exception.what()};
  }
  throw std::logic_error("It connected");
}

}  // namespace

class ProtocolClientRequests : public ProtocolClientTest {};

TEST_F(ProtocolClientRequests, GoesWhereTheVariableSays) {
  Client client(Patient());
  EXPECT_EQ(client.GetAddress(), GetAddress());
  EXPECT_TRUE(client.IsOpen());
  _server.Accept();
}

TEST_F(ProtocolClientRequests, AnAddressWinsOverTheVariable) {
  const ScopedEnvironment elsewhere("TAVIX_SETTINGS_SERVER", "unix:/gone");
  Client::Options options = Patient();
  options.address = GetAddress();
  EXPECT_EQ(Client(options).GetAddress(), GetAddress());
}

TEST_F(ProtocolClientRequests, AnAddressThatIsNoneIsNamedWithItsSource) {
  Client::Options options = Patient();
  options.address = "camera:http";
  options.addressSource = "--server";
  const Exception exception = Catch([&] { const Client client(options); });
  EXPECT_EQ(exception.GetReason(), Reason::kUsage);
  EXPECT_STREQ(exception.what(),
               "--server: 'camera:http' is not an endpoint: the port must be a number from 1 to 65535");
}

TEST(ProtocolClientConnect, ARefusalNamesTheAddressAndTheReason) {
  const ScriptedServer server(ListeningSocket::kNotListening);
  try {
    const settings::client::ProtocolClient client({});
    FAIL() << "it connected";
  } catch (const settings::client::ProtocolException& exception) {
    EXPECT_EQ(exception.GetReason(), settings::client::ProtocolException::Reason::kUnreachable);
    EXPECT_EQ(exception.what(), "no server at 127.0.0.1:" + std::to_string(server.GetPort()) + ": Connection refused");
    EXPECT_FALSE(exception.WasSent());
  }
}

TEST(ProtocolClientConnect, AUnixSocketThatIsGoneIsNamed) {
  const TemporaryDirectory directory;
  settings::client::ProtocolClient::Options options;
  options.address = "unix:" + directory.Path("gone");
  EXPECT_THAT([&] { const settings::client::ProtocolClient client(options); },
              testing::ThrowsMessage<settings::client::ProtocolException>("no server at " + options.address +
                                                                          ": No such file or directory"));
}

// A peer that never answers, as one whose queue of connections is full.
TEST(ProtocolClientConnect, AServerThatTakesNoConnectionIsATimeOut) {
  const FullListener full;
  settings::client::ProtocolClient::Options options;
  options.address = "127.0.0.1:" + std::to_string(full.GetPort());
  options.timeouts.silence = kShort;
  try {
    const settings::client::ProtocolClient client(options);
    FAIL() << "it connected";
  } catch (const settings::client::ProtocolException& exception) {
    EXPECT_EQ(exception.GetReason(), settings::client::ProtocolException::Reason::kTimedOut);
    EXPECT_EQ(exception.what(), "the server at " + options.address + " took no connection within 0.05 s");
    EXPECT_NE(exception.GetHint(), "");
  }
}

TEST(ProtocolClientConnect, WithoutADescriptorThisSystemIsToBlame) {
  using settings::client::ProtocolException;
  const ListeningSocket refusing(ListeningSocket::kNotListening);
  const ListeningSocket listener;
  // A sanitizer needs descriptors to look at the type of an exception, but only for the first one.
  EXPECT_EQ(FailToConnect(refusing).first, ProtocolException::Reason::kUnreachable);
  const NoMoreDescriptors none;
  const std::string text =
      "no connection to 127.0.0.1:" + std::to_string(listener.GetPort()) + " can be made: Too many open files";
  EXPECT_EQ(FailToConnect(listener), std::make_pair(ProtocolException::Reason::kNoResources, text));
}

TEST_F(ProtocolClientRequests, FindsAHostThatIsGoneWithoutAWordInTwoMinutes) {
  const Client client(Patient());
  const auto option = [&](int level, int name) {
    int value = 0;
    socklen_t size = sizeof value;
    getsockopt(client.GetDescriptor(), level, name, &value, &size);
    return value;
  };
  EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPIDLE) + option(IPPROTO_TCP, TCP_KEEPINTVL) * option(IPPROTO_TCP, TCP_KEEPCNT),
            120);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_USER_TIMEOUT), 120 * 1000);
}

TEST_F(ProtocolClientRequests, EachRequestIsSentAsTheProtocolHasIt) {
  Client client(Patient());
  ServerEnd peer = _server.Accept();
  client.Merge(DocumentOf("[a]\nk=1\n"));
  EXPECT_EQ(peer.ReadThrough(), "merge\n[a]\nk=1\n.\n");
  client.Merge(DocumentOf("[a]\nk=1\n"), true);
  EXPECT_EQ(peer.ReadThrough(), "merge nopersist\n[a]\nk=1\n.\n");
  client.Overwrite({"a", "b*"}, DocumentOf("[a]\nk=1\n"));
  EXPECT_EQ(peer.ReadThrough(), "overwrite\na\nb*\n.\n");
  EXPECT_EQ(peer.ReadThrough(), "[a]\nk=1\n.\n");
  client.Restore({"a"});
  EXPECT_EQ(peer.ReadThrough(), "restore\na\n.\n");
}

TEST_F(ProtocolClientRequests, GetReadsGroups) {
  Serve([](ServerEnd& peer) {
    EXPECT_EQ(peer.ReadThrough(), "get delimited\na\nb*\n.\n");
    peer.Send("data\n[a]\nk=1\n[b]\n.\n");
    peer.ReadToEnd();
  });
  EXPECT_EQ(TextOf(Client(Patient()).Get({"a", "b*"})), "[a]\nk=1\n[b]\n");
}

TEST_F(ProtocolClientRequests, TheUserLayerHasNoWordInFront) {
  Serve([](ServerEnd& peer) {
    EXPECT_EQ(peer.ReadThrough("dump"), "dump\n");
    peer.Send("[a]\nk=1\n.\n");
    EXPECT_EQ(peer.ReadThrough("dump"), "dump\n");
    peer.Send(".\n");
    peer.ReadToEnd();
  });
  Client client(Patient());
  EXPECT_EQ(TextOf(client.GetUserSettings()), "[a]\nk=1\n");
  EXPECT_TRUE(client.GetUserSettings().IsEmpty());
}

TEST_F(ProtocolClientRequests, ATestTellsWhetherItHeld) {
  Serve([](ServerEnd& peer) {
    for (const char* result : {"result\nok\n", "result\nfailure\n"}) {
      EXPECT_EQ(ReadTwoParts(peer), "test-and-merge\n[a]\nk=1\n.\n[a]\nk=2\n.\n");
      peer.Send(result);
    }
    peer.ReadToEnd();
  });
  Client client(Patient());
  EXPECT_TRUE(client.TestAndMerge(DocumentOf("[a]\nk=1\n"), DocumentOf("[a]\nk=2\n")));
  EXPECT_FALSE(client.TestAndMerge(DocumentOf("[a]\nk=1\n"), DocumentOf("[a]\nk=2\n")));
}

TEST_F(ProtocolClientRequests, AFlushReturnsBehindWhatWasSentBefore) {
  Serve([](ServerEnd& peer) {
    EXPECT_EQ(peer.ReadThrough(), "restore\na\n.\n");
    EXPECT_EQ(peer.ReadThrough(), "get delimited\n.\n");
    peer.Send("data\n.\n");
    peer.ReadToEnd();
  });
  Client client(Patient());
  client.Restore({"a"});
  client.Flush();
}

TEST_F(ProtocolClientRequests, TheListOfSubscriptionsMayHoldTheEmptyName) {
  Answer({"Subscribed groups\n-----------------\n\na*\n\ndata\n.\n"});
  EXPECT_THAT(Client(Patient()).GetSubscribed(), ElementsAre("", "a*"));
}

TEST_F(ProtocolClientRequests, TheServerReportsFiguresByTheirNames) {
  Serve([](ServerEnd& peer) {
    EXPECT_EQ(peer.ReadThrough(), "info server\nget delimited\n.\n");
    peer.Send(kNotice + std::string("Server\n------\na\\x3db=two\\nlines\nversion=9\n\ndata\n.\n"));
    EXPECT_EQ(peer.ReadThrough(), "get delimited\n.\n");
    peer.Send("data\n.\n");
    peer.ReadToEnd();
  });
  Client client(Patient());
  EXPECT_THAT(client.GetServerInfo(), ElementsAre(testing::Pair("a=b", "two\nlines"), testing::Pair("version", "9")));
  client.Flush();
}

TEST_F(ProtocolClientRequests, AnOlderServerReportsNothing) {
  Answer({"data\n.\n", "data\n[a]\n.\n"});
  Client client(Patient());
  EXPECT_THAT(client.GetServerInfo(), testing::IsEmpty());
  EXPECT_EQ(TextOf(client.Get({"a"})), "[a]\n");
}

TEST_F(ProtocolClientRequests, ASubscriptionReadsWhatItIsAbout) {
  Serve([](ServerEnd& peer) {
    EXPECT_EQ(ReadTwoParts(peer), "subscribe\na\n.\nget delimited\na\n.\n");
    peer.Send("data\n[a]\nk=1\n.\n" + std::string(kNotice));
    peer.ReadToEnd();
  });
  Client client(Patient());
  EXPECT_EQ(TextOf(client.Subscribe({"a"})), "[a]\nk=1\n");
  const std::optional<Client::Notice> notice = client.AwaitNotice(kPatience);
  ASSERT_TRUE(notice);
  EXPECT_EQ(notice->groups, (Groups{"a"}));
  EXPECT_EQ(TextOf(notice->settings), "[a]\nk=2\n");
}

TEST_F(ProtocolClientRequests, ASubscriptionDropsOlderNoticesOfItsGroupsAlone) {
  Serve([](ServerEnd& peer) {
    peer.ReadThrough();
    peer.ReadThrough();
    peer.Send("async change\nb\n.\n[b]\nk=1\n.\n" + std::string(kNotice) + "data\n[a]\nk=3\n.\n");
    peer.ReadToEnd();
  });
  Client client(Patient());
  client.Subscribe({"a"});
  EXPECT_EQ(client.AwaitNotice(kPatience)->groups, (Groups{"b"}));
  EXPECT_FALSE(client.AwaitNotice(std::chrono::milliseconds(0)));
}

TEST_F(ProtocolClientRequests, NoticesInFrontOfAReplyAreKept) {
  Answer({kNotice + std::string(kNotice) + "data\n[a]\nk=3\n.\n"});
  Client client(Patient());
  EXPECT_EQ(TextOf(client.Get({"a"})), "[a]\nk=3\n");
  EXPECT_TRUE(client.AwaitNotice(std::chrono::milliseconds(0)));
  EXPECT_TRUE(client.AwaitNotice(std::chrono::milliseconds(0)));
  EXPECT_FALSE(client.AwaitNotice(std::chrono::milliseconds(0)));
}

TEST_F(ProtocolClientRequests, ANoticeThatIsNotWholeIsNotWaitedFor) {
  Client client(Patient());
  ServerEnd peer = _server.Accept();
  peer.Send("async change\na\n.\n[a]\nk=");
  EXPECT_TRUE(AwaitReadable(client));
  EXPECT_FALSE(client.AwaitNotice(std::chrono::milliseconds(0)));
  peer.Send("2\n.\n");
  EXPECT_EQ(TextOf(client.AwaitNotice(kPatience)->settings), "[a]\nk=2\n");
}

TEST_F(ProtocolClientRequests, ACallReadsOnWhereANoticeWasCut) {
  Serve([](ServerEnd& peer) {
    peer.Send("async change\na\n.\n[a]\n");
    peer.ReadThrough();
    peer.Send("k=2\n.\ndata\n[b]\n.\n");
    peer.ReadToEnd();
  });
  Client client(Patient());
  EXPECT_TRUE(AwaitReadable(client));
  EXPECT_FALSE(client.AwaitNotice(std::chrono::milliseconds(0)));
  EXPECT_EQ(TextOf(client.Get({"b"})), "[b]\n");
  EXPECT_EQ(TextOf(client.AwaitNotice(std::chrono::milliseconds(0))->settings), "[a]\nk=2\n");
}

TEST_F(ProtocolClientRequests, NoNoticeWithinTheLimitIsNone) {
  Client client(Patient());
  EXPECT_FALSE(client.AwaitNotice(kShort));
  EXPECT_TRUE(client.IsOpen());
}

TEST_F(ProtocolClientRequests, NoticesThatNobodyTakesAreMergedIntoTheLast) {
  std::string notices;
  for (size_t i = 0; i <= Client::kMaxPendingNotices; ++i)
    notices += "async change\na\n.\n[a]\nk=" + std::to_string(i) + "\n.\n";
  Answer({notices + "data\n.\n"});
  Client client(Patient());
  client.Flush();
  for (size_t i = 0; i + 1 < Client::kMaxPendingNotices; ++i)
    EXPECT_EQ(client.AwaitNotice(kShort)->settings.GetValue("a", "k"), std::to_string(i));
  EXPECT_EQ(client.AwaitNotice(kShort)->settings.GetValue("a", "k"), std::to_string(Client::kMaxPendingNotices));
  EXPECT_FALSE(client.AwaitNotice(std::chrono::milliseconds(0)));
}

TEST_F(ProtocolClientRequests, ASignalDoesNotEndAWait) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  Client client(Patient());
  ServerEnd peer = _server.Accept();
  std::string text;
  BackgroundCall reader([&] { text = TextOf(client.Get({"a"})); });
  reader.AwaitBlocked();
  pthread_kill(reader.GetHandle(), SIGUSR1);
  reader.AwaitBlocked();
  peer.ReadThrough();
  peer.Send("data\n[a]\n.\n");
  reader.Join();
  EXPECT_EQ(text, "[a]\n");
}

TEST_F(ProtocolClientRequests, ShowsItsLinesToATrace) {
  Answer({kNotice + std::string("data\n[a]\n.\n")});
  std::string lines;
  Client client(Patient(), [&](char direction, const std::string& line) { lines += direction + line + "\n"; });
  client.Get({"a"});
  EXPECT_EQ(lines, ">get delimited\n>a\n>.\n<async change\n<a\n<.\n<[a]\n<k=2\n<.\n<data\n<[a]\n<.\n");
}

TEST_F(ProtocolClientRequests, TellsHowMuchOfARequestHasLeft) {
  Client client(Patient());
  ServerEnd peer = _server.Accept();
  std::vector<size_t> parts;
  size_t total = 0;
  client.SetProgress([&](size_t done, size_t all) {
    parts.push_back(done);
    total = all;
  });
  BackgroundCall reader([&] { peer.ReadThrough(); });
  client.Merge(DocumentOf("[a]\nk=" + std::string(1024 * 1024, 'x') + "\n"));
  reader.Join();
  EXPECT_GT(parts.size(), 1U);
  EXPECT_TRUE(std::is_sorted(parts.begin(), parts.end()));
  EXPECT_EQ(parts.back(), total);
}

TEST_F(ProtocolClientRequests, ReadsAHugeReply) {
  const std::string value(20 * 1024 * 1024, 'x');
  Answer({"data\n[a]\nk=" + value + "\nl=" + value + "\n.\n"});
  const core::IniFile settings = Client(Patient()).Get({"a"});
  EXPECT_TRUE(settings.GetValue("a", "k") == value);
  EXPECT_TRUE(settings.GetValue("a", "l") == value);
}

// A server that waits for its notices to be taken reads nothing meanwhile.
TEST_F(ProtocolClientRequests, ReadsWhileItSends) {
  const std::string value(15 * 1024 * 1024, 'x');
  Serve([&](ServerEnd& peer) {
    peer.AwaitBytes();
    peer.Send("async change\na\n.\n[a]\nk=" + value + "\n.\n");
    peer.ReadThrough();
    peer.ReadThrough();
    peer.Send("data\n.\n");
    peer.ReadToEnd();
  });
  Client client(Patient());
  client.Merge(DocumentOf("[a]\nk=" + value + "\n"));
  client.Flush();
  EXPECT_TRUE(client.AwaitNotice(std::chrono::milliseconds(0))->settings.GetValue("a", "k") == value);
}

}  // namespace tavix::test
