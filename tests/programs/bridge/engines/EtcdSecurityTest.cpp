#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "programs/bridge/engines/EtcdJson.h"
#include "tests/programs/bridge/engines/EngineKinds.h"
#include "tests/programs/bridge/engines/LinkedEngine.h"
#include "tests/programs/bridge/engines/TlsServer.h"
#include "tests/support/TestCertificates.h"

#ifdef TAVIX_HAS_ETCD
namespace tavix::test {

using bridge::EtcdEngine;
using bridge::EtcdSettings;
using bridge::EventQueue;
using bridge::PutDone;
using testing::HasSubstr;
using testing::Not;

namespace {

auto MakeMaker(const EtcdSettings& settings) {
  return [settings](EventQueue& events) { return std::make_unique<EtcdEngine>(settings, events); };
}

EtcdSettings MakeTlsSettings(const TlsServer& server, const TestCertificates& certificates) {
  EtcdSettings settings = MakeEtcdSettings({});
  settings.caFile = certificates.GetAuthority();
  settings.endpoints = {"https://localhost:" + std::to_string(server.GetPort())};
  return settings;
}

}  // namespace

TEST(EtcdSecurity, TalksByTlsToTheHostOfTheCertificateAlone) {
  const TemporaryDirectory folder;
  const TestCertificates certificates(folder);
  certificates.Make("member", "DNS:localhost");
  const EtcdCluster cluster(folder, 1, "https",
                            {"--cert-file", folder.Path("member.pem"), "--key-file", folder.Path("member.key")});
  EtcdSettings settings = MakeEtcdSettings({});
  settings.caFile = certificates.GetAuthority();
  settings.endpoints = {"https://localhost:" + std::to_string(cluster.GetPort(0))};
  LinkedEngine named(MakeMaker(settings));
  named.Connect();

  settings.endpoints = {"https://127.0.0.1:" + std::to_string(cluster.GetPort(0))};
  EXPECT_NE(LinkedEngine(MakeMaker(settings)).FailToConnect().reason, "");

  settings.endpoints = {"https://localhost:" + std::to_string(cluster.GetPort(0))};
  settings.caFile = TestCertificates(folder, "others").GetAuthority();
  EXPECT_THAT(LinkedEngine(MakeMaker(settings)).FailToConnect().reason, HasSubstr("certificate"));
}

TEST(EtcdSecurity, RefusesACertificateOfAnotherHost) {
  const TemporaryDirectory folder;
  const TestCertificates certificates(folder);
  certificates.Make("server", "DNS:elsewhere.example");
  const TlsServer server(folder);
  EXPECT_THAT(LinkedEngine(MakeMaker(MakeTlsSettings(server, certificates))).FailToConnect().reason,
              HasSubstr("certificate"));
}

TEST(EtcdSecurity, RefusesTlsThatIsTooOld) {
  const TemporaryDirectory folder;
  const TestCertificates certificates(folder);
  certificates.Make("server", "DNS:localhost");
  TlsServer server(folder, TlsServer::Old());
  EXPECT_NE(LinkedEngine(MakeMaker(MakeTlsSettings(server, certificates))).FailToConnect().reason, "");
  EXPECT_TRUE(server.AwaitOutput("unsupported protocol"));
}

TEST(EtcdSecurity, KeepsToItsRole) {
  const TemporaryDirectory folder;
  const EtcdCluster cluster(folder, 1);
  const std::string range = R"("key":")" + bridge::etcd::EncodeBase64("fleet/") + R"(","range_end":")" +
                            bridge::etcd::EncodeBase64("fleet0") + "\"";
  cluster.Post("/v3/auth/user/add", R"({"name":"root","password":"root"})");
  cluster.Post("/v3/auth/role/add", R"({"name":"root"})");
  cluster.Post("/v3/auth/user/grant", R"({"user":"root","role":"root"})");
  cluster.Post("/v3/auth/user/add", R"({"name":"node","password":"sesame-4711"})");
  cluster.Post("/v3/auth/role/add", R"({"name":"fleet"})");
  cluster.Post("/v3/auth/role/grant", R"({"name":"fleet","perm":{"permType":"READWRITE",)" + range + "}}");
  cluster.Post("/v3/auth/user/grant", R"({"user":"node","role":"fleet"})");
  cluster.Post("/v3/auth/enable", "{}");
  EtcdSettings settings = MakeEtcdSettings({cluster.GetPort(0)});
  settings.credentialsFile = folder.Write("credentials", "user=node\npassword=wrong\n");
  chmod(settings.credentialsFile.c_str(), 0600);
  LinkedEngine engine(MakeMaker(settings));
  EXPECT_THAT(engine.FailToConnect().reason, Not(HasSubstr("wrong")));

  folder.Write("credentials", "user=node\npassword=sesame-4711\n");
  engine.Connect();
  engine.Follow({"fleet/"});
  EXPECT_EQ(engine.Put("fleet/a/1", "one").outcome, PutDone::Outcome::kDone);
  engine.AwaitValue("fleet/a/1", "one");
  const PutDone refused = engine.Put("elsewhere/1", "one");
  EXPECT_EQ(refused.outcome, PutDone::Outcome::kRefused);
  EXPECT_THAT(refused.reason, HasSubstr("permission denied"));
}

}  // namespace tavix::test
#endif
