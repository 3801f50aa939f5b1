#include "programs/bridge/engines/MqttEngine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <functional>
#include <memory>
#include <string>

#include "tavix/osa/Exception.h"
#include "tests/programs/bridge/engines/EngineKinds.h"
#include "tests/programs/bridge/engines/LinkedEngine.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ListeningSocket.h"

#ifdef TAVIX_HAS_MQTT
namespace tavix::test {

using bridge::EngineEvent;
using bridge::EventQueue;
using bridge::LastWill;
using bridge::Lost;
using bridge::MqttEngine;
using bridge::MqttSettings;
using bridge::PutDone;
using testing::HasSubstr;

namespace {

using namespace std::chrono_literals;

// What a broker of MQTT 5 says first when all is well.
const std::string kAcceptedConnect("\x20\x03\x00\x00\x00", 5);

auto MakeMaker(const MqttSettings& settings) {
  return [settings](EventQueue& events) { return std::make_unique<MqttEngine>(settings, events); };
}

class MqttEngineTest : public testing::Test {
 protected:
  MqttHost _host;
  LinkedEngine _engine{[this](EventQueue& events) { return _host.MakeEngine(events); }};
  LinkedEngine _other{[this](EventQueue& events) { return _host.MakeOther(events); }};
};

// A broker that does whatever the test wants, and a client of it.
class HostileMqttBroker : public testing::Test {
 protected:
  // Has the client connect, and does "act" with its connection, which stays open. The reason why the link is lost.
  std::string LoseLinkBy(const std::function<void(const osa::Descriptor& peer)>& act) {
    osa::Descriptor peer;
    BackgroundCall broker([&] {
      peer = _listener.Accept();
      ReceiveOnce(peer);
      act(peer);
    });
    _engine.Get().Connect({});
    EngineEvent event = _engine.AwaitAny();
    while (!std::holds_alternative<Lost>(event)) event = _engine.AwaitAny();
    broker.Join();
    return std::get<Lost>(event).reason;
  }

  ListeningSocket _listener;
  LinkedEngine _engine{MakeMaker(MakeMqttSettings(_listener.GetPort(), "engine"))};
};

}  // namespace

TEST_F(MqttEngineTest, HasTheLastWillPublishedWhenTheLinkBreaks) {
  _other.Connect();
  _other.Follow({"fleet/engine/"});
  _engine.Connect({"", LastWill{"fleet/engine/status", "offline"}});
  EXPECT_EQ(_engine.Put("fleet/engine/status", "online").outcome, PutDone::Outcome::kDone);
  _other.AwaitValue("fleet/engine/status", "online");

  _host.Cut();
  _other.AwaitValue("fleet/engine/status", "offline");
}

TEST_F(MqttEngineTest, HasTheLastWillPublishedWhenItCloses) {
  _other.Connect();
  _other.Follow({"fleet/engine/"});
  _engine.Connect({"", LastWill{"fleet/engine/status", "offline"}});

  _engine.Get().Close();
  _other.AwaitValue("fleet/engine/status", "offline");
}

TEST_F(MqttEngineTest, HasTheLastWillKept) {
  _engine.Connect({"", LastWill{"fleet/engine/status", "offline"}});
  _engine.Get().Close();
  _other.Connect();
  _other.Get().Follow({"fleet/engine/"}, 0);
  _other.AwaitValue("fleet/engine/status", "offline");
}

TEST_F(MqttEngineTest, HasMessagesExpire) {
  _engine.Connect();
  EXPECT_EQ(_engine.Put("fleet/a/short", "one", {{}, 1s}).outcome, PutDone::Outcome::kDone);
  EXPECT_EQ(_engine.Put("fleet/a/long", "one", {{}, 720h}).outcome, PutDone::Outcome::kDone);

  _other.Connect();
  EXPECT_TRUE(Eventually([&] {
    _other.ForgetStore();
    _other.Follow({});
    _other.Follow({"fleet/a/"});
    return _other.GetStore().count("fleet/a/short") == 0;
  }));
  EXPECT_EQ(_other.GetStore().count("fleet/a/long"), 1u);
}

TEST_F(MqttEngineTest, RefusesTopicsThatAreNone) {
  _engine.Connect();
  for (const std::string& topic : {std::string("a/#"), std::string("a/+/b"), std::string("a\0b", 3),
                                   std::string("\xff"), std::string(70000, 'x'), std::string()}) {
    const PutDone done = _engine.Put(topic, "one");
    EXPECT_EQ(done.outcome, PutDone::Outcome::kRefused);
    EXPECT_NE(done.reason, "");
  }
  EXPECT_EQ(_engine.Put("fleet/a/1", "one").outcome, PutDone::Outcome::kDone);
}

TEST_F(MqttEngineTest, DoesNotReceiveMessagesAboveItsLimit) {
  MqttSettings settings = MakeMqttSettings(_host.GetBroker().GetPort(), "small");
  settings.maxPacket = 10000;
  LinkedEngine small(MakeMaker(settings));
  _other.Connect();
  _other.Put("fleet/a/large", std::string(20000, 'x'));
  _other.Put("fleet/a/small", "one");

  small.Connect();
  small.Follow({"fleet/a/"});
  EXPECT_EQ(small.GetStore().size(), 1u);
  EXPECT_EQ(small.GetStore().count("fleet/a/small"), 1u);
}

TEST_F(MqttEngineTest, ReadsWhatComesByteByByte) {
  _other.Connect();
  for (int count = 0; count < 20; ++count) _other.Put("fleet/a/" + std::to_string(count), "one");
  _host.GetProxy().SetMode(TcpProxy::Mode::kDribble);

  _engine.Connect();
  _engine.Follow({"fleet/a/"});
  EXPECT_EQ(_engine.GetStore().size(), 20u);
}

TEST_F(MqttEngineTest, LosesALinkThatIsHalfClosed) {
  _engine.Connect();
  _host.GetProxy().HalfCloseAll();
  EXPECT_TRUE(std::holds_alternative<Lost>(_engine.AwaitAny()));
}

TEST_F(MqttEngineTest, LosesALinkWhoseBrokerIsSilent) {
  MqttSettings settings = MakeMqttSettings(_host.GetProxy().GetPort(), "impatient");
  settings.keepAlive = 5s;
  LinkedEngine impatient(MakeMaker(settings));
  impatient.Connect();
  _host.Stall();
  EXPECT_TRUE(std::holds_alternative<Lost>(impatient.AwaitAny()));
}

TEST_F(MqttEngineTest, LosesItsLinkToAClientOfItsName) {
  _engine.Connect();
  LinkedEngine twin([this](EventQueue& events) { return _host.MakeEngine(events); });
  twin.Connect();

  EXPECT_TRUE(std::holds_alternative<Lost>(_engine.AwaitAny()));
}

TEST_F(MqttEngineTest, LeavesNothingForTheBrokerToQueue) {
  _other.Connect();
  _engine.Connect();
  _engine.Follow({"fleet/a/"});
  _engine.Get().Close();
  _other.Put("fleet/a/1", "one");
  _other.Put("fleet/a/1", std::nullopt);

  _engine.Connect();
  _engine.Follow({"fleet/b/"});
  EXPECT_EQ(_engine.GetItemCount(), 0u);
}

TEST_F(HostileMqttBroker, IsGivenUpWhenItClosesAfterTheConnect) {
  EXPECT_THAT(LoseLinkBy([](const osa::Descriptor& peer) { shutdown(peer.Get(), SHUT_RDWR); }), HasSubstr("127.0.0.1"));
}

TEST_F(HostileMqttBroker, IsGivenUpWhenItDoesNotAnswer) {
  MqttSettings settings = MakeMqttSettings(_listener.GetPort(), "impatient");
  settings.patience = 1s;
  LinkedEngine impatient(MakeMaker(settings));
  EXPECT_THAT(impatient.FailToConnect().reason, HasSubstr("no answer to the connect"));
}

TEST_F(HostileMqttBroker, IsGivenUpWhenItSendsGarbage) {
  for (const std::string& garbage : {std::string("HTTP/1.1 400 Bad Request\r\n\r\n"), std::string(1000, '\xff')}) {
    EXPECT_NE(LoseLinkBy([&](const osa::Descriptor& peer) {
                Send(peer, garbage);
                shutdown(peer.Get(), SHUT_WR);
              }),
              "");
  }
}

TEST_F(HostileMqttBroker, IsGivenUpWhenItRefuses) {
  EXPECT_THAT(LoseLinkBy([](const osa::Descriptor& peer) { Send(peer, std::string("\x20\x03\x00\x87\x00", 5)); }),
              HasSubstr("Not authorized"));
}

TEST_F(HostileMqttBroker, IsGivenUpWhenAHugePacketEnds) {
  EXPECT_NE(LoseLinkBy([](const osa::Descriptor& peer) {
              Send(peer, kAcceptedConnect +
                             std::string("\x30\xff\xff\xff\x7f\x00\x01"
                                         "a",
                                         8) +
                             std::string(100000, 'x'));
              shutdown(peer.Get(), SHUT_RDWR);
            }),
            "");
}

TEST_F(HostileMqttBroker, IsGivenUpWhenATopicHoldsNul) {
  EXPECT_NE(LoseLinkBy([](const osa::Descriptor& peer) {
              Send(peer, kAcceptedConnect + std::string("\x30\x07\x00\x03"
                                                        "a\0b\x00x",
                                                        9));
              shutdown(peer.Get(), SHUT_WR);
            }),
            "");
}

TEST(MqttEngine, RefusesSettingsThatCannotBeRight) {
  EventQueue events;
  EXPECT_THROW(MqttEngine(MqttSettings{}, events), osa::Exception);
  EXPECT_THROW(MqttEngine(MakeMqttSettings(0, "engine"), events), osa::Exception);
  EXPECT_THROW(MqttEngine(MakeMqttSettings(1, ""), events), osa::Exception);
}

}  // namespace tavix::test
#endif
