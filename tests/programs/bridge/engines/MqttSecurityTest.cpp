#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "tests/programs/bridge/engines/EngineKinds.h"
#include "tests/programs/bridge/engines/LinkedEngine.h"
#include "tests/programs/bridge/engines/TlsServer.h"
#include "tests/support/ListeningSocket.h"
#include "tests/support/TestCertificates.h"

#ifdef TAVIX_HAS_MQTT
namespace tavix::test {

using bridge::EventQueue;
using bridge::Lost;
using bridge::MqttEngine;
using bridge::MqttSettings;
using bridge::PutDone;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr char kPassword[] = "sesame-4711";

class MqttSecurity : public testing::Test {
 protected:
  std::unique_ptr<LinkedEngine> MakeEngine(const MqttSettings& settings) {
    return std::make_unique<LinkedEngine>(
        [settings](EventQueue& events) { return std::make_unique<MqttEngine>(settings, events); });
  }

  // A broker whose certificate is for that host.
  void StartWithTls(const std::string& host, const std::string& lines = "") {
    _certificates.Make("broker", host);
    _broker = std::make_unique<MosquittoBroker>(
        _folder, "allow_anonymous true\ncafile " + _certificates.GetAuthority() + "\ncertfile " +
                     _folder.Path("broker.pem") + "\nkeyfile " + _folder.Path("broker.key") + "\n" + lines);
  }

  // A broker that wants a password, and lets "engine" write and read below fleet/engine/ alone.
  void StartWithPassword() {
    const std::string passwords = _folder.Path("passwords");
    RunToEnd(_folder.GetPath(), {"mosquitto_passwd", "-c", "-b", passwords, "engine", kPassword});
    const std::string rules = _folder.Write("rules", "pattern readwrite fleet/%c/#\n");
    chmod(rules.c_str(), 0600);
    _broker = std::make_unique<MosquittoBroker>(
        _folder, "allow_anonymous false\npassword_file " + passwords + "\nacl_file " + rules + "\n");
  }

  MqttSettings MakeSettings(const std::string& host = "localhost") {
    MqttSettings settings = MakeMqttSettings(_broker->GetPort(), "engine");
    settings.host = host;
    return settings;
  }

  MqttSettings MakeSettingsWithTls(const std::string& host = "localhost") {
    MqttSettings settings = MakeSettings(host);
    settings.caFile = _certificates.GetAuthority();
    return settings;
  }

  std::string WriteCredentials(const std::string& text, mode_t mode = 0600) {
    const std::string file = _folder.Write("credentials", text);
    chmod(file.c_str(), mode);
    return file;
  }

  TemporaryDirectory _folder;
  TestCertificates _certificates{_folder};
  std::unique_ptr<MosquittoBroker> _broker;
};

}  // namespace

TEST_F(MqttSecurity, TalksByTlsToTheHostOfTheCertificate) {
  StartWithTls("DNS:localhost");
  const auto engine = MakeEngine(MakeSettingsWithTls());
  engine->Connect();
  for (int count = 0; count < 100; ++count) engine->Put("fleet/a/" + std::to_string(count), std::string(1000, 'x'));
  engine->Follow({"fleet/a/"});
  EXPECT_EQ(engine->GetStore().size(), 100u);
}

TEST_F(MqttSecurity, RefusesACertificateOfAnotherHost) {
  StartWithTls("DNS:elsewhere.example");
  EXPECT_THAT(MakeEngine(MakeSettingsWithTls())->FailToConnect().reason, HasSubstr("localhost"));
}

TEST_F(MqttSecurity, RefusesACertificateOfAnotherAddress) {
  StartWithTls("DNS:localhost");
  EXPECT_NE(MakeEngine(MakeSettingsWithTls("127.0.0.1"))->FailToConnect().reason, "");
}

TEST_F(MqttSecurity, RefusesACertificateOfAnUnknownAuthority) {
  StartWithTls("DNS:localhost");
  const TestCertificates others(_folder, "others");
  MqttSettings settings = MakeSettings();
  settings.caFile = others.GetAuthority();
  EXPECT_THAT(MakeEngine(settings)->FailToConnect().reason, HasSubstr("certificate"));
}

TEST_F(MqttSecurity, RefusesABrokerWithoutTls) {
  _broker = std::make_unique<MosquittoBroker>(_folder);
  EXPECT_NE(MakeEngine(MakeSettingsWithTls())->FailToConnect().reason, "");
}

TEST_F(MqttSecurity, RefusesTlsThatIsTooOld) {
  _certificates.Make("server", "IP:127.0.0.1");
  TlsServer server(_folder, TlsServer::Old());
  MqttSettings settings = MakeMqttSettings(server.GetPort(), "engine");
  settings.caFile = _certificates.GetAuthority();
  EXPECT_NE(MakeEngine(settings)->FailToConnect().reason, "");
  EXPECT_TRUE(server.AwaitOutput("unsupported protocol"));
}

// 0.0.0.0 reaches the device itself, but is no address that shows that it does.
TEST_F(MqttSecurity, SaysNothingInPlainToWhatIsNotLoopback) {
  const ListeningSocket listener;
  MqttSettings settings = MakeMqttSettings(listener.GetPort(), "engine");
  settings.host = "0.0.0.0";
  const auto engine = MakeEngine(settings);
  engine->Get().Connect({});
  const osa::Descriptor peer = listener.Accept();
  EXPECT_EQ(Receive(peer, 1), "\x16");  // a handshake of TLS
}

TEST_F(MqttSecurity, TrustsTheAuthoritiesOfTheSystemWithoutOthers) {
  _certificates.Make("server", "IP:0.0.0.0");
  TlsServer server(_folder);
  MqttSettings settings = MakeMqttSettings(server.GetPort(), "engine");
  settings.host = "0.0.0.0";
  EXPECT_THAT(MakeEngine(settings)->FailToConnect().reason, HasSubstr("certificate"));
}

TEST_F(MqttSecurity, TalksByTheNewestTls) {
  StartWithTls("DNS:localhost", "tls_version tlsv1.3\n");
  EXPECT_EQ(MakeEngine(MakeSettingsWithTls())->Connect().source, "");
}

TEST_F(MqttSecurity, ShowsItsOwnCertificate) {
  StartWithTls("DNS:localhost", "require_certificate true\n");
  EXPECT_NE(MakeEngine(MakeSettingsWithTls())->FailToConnect().reason, "");

  _certificates.Make("device", "DNS:engine");
  MqttSettings settings = MakeSettingsWithTls();
  settings.credentialsFile =
      WriteCredentials("certificate=" + _folder.Path("device.pem") + "\nkey=" + _folder.Path("device.key") + "\n");
  MakeEngine(settings)->Connect();
}

TEST_F(MqttSecurity, ReadsTheCredentialsForEachLink) {
  StartWithPassword();
  MqttSettings settings = MakeSettings();
  settings.credentialsFile = WriteCredentials("user=engine\npassword=wrong\n");
  const auto engine = MakeEngine(settings);
  EXPECT_THAT(engine->FailToConnect().reason, HasSubstr("Not authorized"));

  WriteCredentials(std::string("user=engine\npassword=") + kPassword + "\n");
  engine->Connect();
}

TEST_F(MqttSecurity, RefusesCredentialsThatOthersMayRead) {
  StartWithPassword();
  MqttSettings settings = MakeSettings();
  settings.credentialsFile = WriteCredentials(std::string("user=engine\npassword=") + kPassword + "\n", 0644);
  const std::string reason = MakeEngine(settings)->FailToConnect().reason;
  EXPECT_THAT(reason, HasSubstr(settings.credentialsFile));
  EXPECT_THAT(reason, Not(HasSubstr(kPassword)));
}

TEST_F(MqttSecurity, ReportsWhatTheBrokerDoesNotLetItWrite) {
  StartWithPassword();
  MqttSettings settings = MakeSettings();
  settings.credentialsFile = WriteCredentials(std::string("user=engine\npassword=") + kPassword + "\n");
  const auto engine = MakeEngine(settings);
  engine->Connect();

  EXPECT_EQ(engine->Put("fleet/engine/1", "one").outcome, PutDone::Outcome::kDone);
  const PutDone done = engine->Put("fleet/other/1", "one");
  EXPECT_EQ(done.outcome, PutDone::Outcome::kRefused);
  EXPECT_THAT(done.reason, HasSubstr("Not authorized"));
}

TEST_F(MqttSecurity, LosesTheLinkWhenItMayNotWriteItsMark) {
  StartWithPassword();
  MqttSettings settings = MakeSettings();
  settings.credentialsFile = WriteCredentials(std::string("user=engine\npassword=") + kPassword + "\n");
  settings.mark = "fleet/other/mark";
  const auto engine = MakeEngine(settings);
  engine->Connect();
  engine->Get().Follow({"fleet/engine/"}, 0);
  EXPECT_THAT(std::get<Lost>(engine->AwaitAny()).reason, HasSubstr("fleet/other/mark"));
}

}  // namespace tavix::test
#endif
