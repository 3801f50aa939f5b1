#include "tavix/osa/ServiceEndpoint.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "tavix/osa/Exception.h"
#include "tests/support/Environment.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::osa {

void PrintTo(const ServiceEndpoint& endpoint, std::ostream* out) {
  *out << endpoint.host << " port " << endpoint.port;
}

}  // namespace tavix::osa

namespace {

using tavix::osa::EndpointException;
using tavix::osa::Exception;
using tavix::osa::FindServiceEndpoint;
using tavix::osa::kDefaultServicePort;
using tavix::osa::ParseEndpoint;
using Endpoint = tavix::osa::ServiceEndpoint;
using tavix::test::ScopedEnvironment;
using tavix::test::TemporaryDirectory;

constexpr char kVariable[] = "TAVIX_SETTINGS_SERVER";
constexpr char kLabel[] = "tavix-settings-server";

auto Is(const std::string& host, unsigned short port) {
  return testing::AllOf(testing::Field("host", &Endpoint::host, host), testing::Field("port", &Endpoint::port, port));
}

class ServiceEndpoint : public testing::Test {
 protected:
  Endpoint FindWithHosts(const std::string& label, unsigned short port, const std::string& hosts) {
    return FindServiceEndpoint(label, port, _directory.Write("hosts", hosts).c_str());
  }

  TemporaryDirectory _directory;
  ScopedEnvironment _noVariable{kVariable, nullptr};
};

TEST_F(ServiceEndpoint, TheServicesOwnPortIs7211) {
  EXPECT_EQ(kDefaultServicePort, 7211);
}

TEST_F(ServiceEndpoint, AnUnknownLabelIsThisMachine) {
  EXPECT_THAT(FindWithHosts(kLabel, 0, "10.0.0.9 another-host\n"), Is("127.0.0.1", 7211));
  EXPECT_THAT(FindWithHosts(kLabel, 0, ""), Is("127.0.0.1", 7211));
}

TEST_F(ServiceEndpoint, AMissingHostsDatabaseIsAnEmptyOne) {
  EXPECT_THAT(FindServiceEndpoint(kLabel, 0, _directory.Path("missing").c_str()), Is("127.0.0.1", 7211));
}

TEST_F(ServiceEndpoint, ALabelIsLookedUpInTheHostsDatabase) {
  EXPECT_THAT(FindWithHosts(kLabel, 0, "127.0.0.1 localhost\n10.0.0.2\ttavix-settings-server\n"), Is("10.0.0.2", 7211));
  EXPECT_THAT(FindWithHosts(kLabel, 0, "fe80::1 alias  tavix-settings-server other"), Is("fe80::1", 7211));
}

TEST_F(ServiceEndpoint, TheFirstLineThatNamesTheLabelCounts) {
  EXPECT_THAT(FindWithHosts("server", 0, "10.0.0.2 server\n10.0.0.3 server\n"), Is("10.0.0.2", 7211));
}

TEST_F(ServiceEndpoint, OnlyWholeNamesOfTheHostsDatabaseCount) {
  for (const char* hosts : {"10.0.0.2 tavix-settings-server2\n", "10.0.0.2 x-tavix-settings-server\n",
                            "10.0.0.2 tavix-settings-server.example\n", "tavix-settings-server 10.0.0.2\n"})
    EXPECT_THAT(FindWithHosts(kLabel, 0, hosts), Is("127.0.0.1", 7211)) << hosts;
}

TEST_F(ServiceEndpoint, CommentsOfTheHostsDatabaseAreSkipped) {
  for (const char* hosts : {"# 10.0.0.2 tavix-settings-server\n", "10.0.0.2 other # tavix-settings-server\n",
                            "10.0.0.2 other #tavix-settings-server\n", "\n\n#\n"})
    EXPECT_THAT(FindWithHosts(kLabel, 0, hosts), Is("127.0.0.1", 7211)) << hosts;
}

TEST_F(ServiceEndpoint, APortThatIsGivenIsKept) {
  EXPECT_THAT(FindWithHosts(kLabel, 9, ""), Is("127.0.0.1", 9));
  EXPECT_THAT(FindWithHosts(kLabel, 9, "10.0.0.2 tavix-settings-server\n"), Is("10.0.0.2", 9));
  EXPECT_THAT(FindServiceEndpoint("192.168.0.1", 65535), Is("192.168.0.1", 65535));
}

TEST_F(ServiceEndpoint, TheVariableGoesBeforeTheHostsDatabase) {
  const ScopedEnvironment variable(kVariable, "192.168.1.5:9000");
  EXPECT_THAT(FindWithHosts(kLabel, 0, "10.0.0.2 tavix-settings-server\n"), Is("192.168.1.5", 9000));
}

TEST_F(ServiceEndpoint, AVariableWithoutPortMeansTheServicesOwn) {
  const ScopedEnvironment variable(kVariable, "settings.example");
  EXPECT_THAT(FindWithHosts(kLabel, 0, ""), Is("settings.example", 7211));
  EXPECT_THAT(FindWithHosts(kLabel, 9, ""), Is("settings.example", 7211));
}

TEST_F(ServiceEndpoint, TheVariableIsReadAtEachCall) {
  const ScopedEnvironment first(kVariable, "10.0.0.1");
  EXPECT_THAT(FindWithHosts(kLabel, 0, ""), Is("10.0.0.1", 7211));
  const ScopedEnvironment second(kVariable, "10.0.0.2");
  EXPECT_THAT(FindWithHosts(kLabel, 0, ""), Is("10.0.0.2", 7211));
}

TEST_F(ServiceEndpoint, TheHostsDatabaseIsReadAtEachCall) {
  EXPECT_THAT(FindWithHosts("server", 0, "10.0.0.1 server\n"), Is("10.0.0.1", 7211));
  EXPECT_THAT(FindWithHosts("server", 0, "10.0.0.2 server\n"), Is("10.0.0.2", 7211));
}

TEST_F(ServiceEndpoint, EveryLabelHasAVariableOfItsOwn) {
  const ScopedEnvironment variable("MY_OTHER_SERVICE2", "10.0.0.7:70");
  EXPECT_THAT(FindWithHosts("My-other-Service2", 0, ""), Is("10.0.0.7", 70));
  EXPECT_THAT(FindWithHosts(kLabel, 0, ""), Is("127.0.0.1", 7211));
}

TEST_F(ServiceEndpoint, AVariableThatCannotBeUnderstoodThrowsAndIsNamed) {
  for (const char* value : {"", "host:", "host:x", "host:0", "host:65536", ":7211", "[::1", "[::1]7211"}) {
    const ScopedEnvironment variable(kVariable, value);
    EXPECT_THAT([&] { FindWithHosts(kLabel, 0, ""); }, testing::ThrowsMessage<EndpointException>(testing::StartsWith(
                                                           "TAVIX_SETTINGS_SERVER: '" + std::string(value) + "' ")))
        << value;
  }
}

TEST_F(ServiceEndpoint, APathBehindUnixIsAUnixSocket) {
  for (const char* path : {"/run/settings", "settings.sock", "/run/a:b", "/"}) {
    const std::string value = std::string("unix:") + path;
    const ScopedEnvironment variable(kVariable, value.c_str());
    for (const std::string& host : {std::string(kLabel), value}) {
      const Endpoint endpoint = FindWithHosts(host, 9, "10.0.0.2 tavix-settings-server unix\n");
      EXPECT_EQ(endpoint.path, path);
      EXPECT_THAT(endpoint, Is("", 0));
    }
  }
}

TEST_F(ServiceEndpoint, AUnixSocketHasAPathOfAtMost107Bytes) {
  EXPECT_EQ(ParseEndpoint("unix:" + std::string(107, 'x'), "V").path.size(), 107u);
  for (const std::string& text : {std::string("unix:"), "unix:" + std::string(108, 'x')}) {
    EXPECT_THAT(
        [&] { ParseEndpoint(text, "V"); },
        testing::ThrowsMessage<Exception>("V: '" + text + "' is not an endpoint: the path must have 1 to 107 bytes"));
  }
}

TEST_F(ServiceEndpoint, AnythingButALabelIsTakenAsItIs) {
  for (const char* host : {"192.168.0.1", "settings.example", "::1", "fe80::1%eth0", ""})
    EXPECT_THAT(FindWithHosts(host, 0, "10.0.0.2 settings.example 192.168.0.1\n"), Is(host, 7211));
}

TEST_F(ServiceEndpoint, AnEndpointIsAHostAndPerhapsAPort) {
  const std::vector<std::tuple<const char*, const char*, unsigned short>> cases = {
      {"host", "host", 7211},         {"host:1", "host", 1},
      {"10.0.0.1", "10.0.0.1", 7211}, {"10.0.0.1:65535", "10.0.0.1", 65535},
      {"::1", "::1", 7211},           {"fe80::2:1", "fe80::2:1", 7211},
      {"::1:x", "::1:x", 7211},       {"::1:99999", "::1:99999", 7211},
      {"[::1]", "::1", 7211},         {"[::1]:00080", "::1", 80},
      {"[10.0.0.1]:5", "10.0.0.1", 5}};
  for (const auto& [text, host, port] : cases) EXPECT_THAT(ParseEndpoint(text, "--listen"), Is(host, port)) << text;
}

TEST_F(ServiceEndpoint, TextThatIsNoEndpointThrowsAndSaysWhy) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "no host"},
      {":80", "no host"},
      {"[]:80", "no host"},
      {"host:", "the port must be a number from 1 to 65535"},
      {"host:0", "the port must be a number from 1 to 65535"},
      {"host:65536", "the port must be a number from 1 to 65535"},
      {"host:-1", "the port must be a number from 1 to 65535"},
      {"host:+1", "the port must be a number from 1 to 65535"},
      {"host: 1", "the port must be a number from 1 to 65535"},
      {"host:1x", "the port must be a number from 1 to 65535"},
      {"host:000001", "the port must be a number from 1 to 65535"},
      {"host:99999999999999999999", "the port must be a number from 1 to 65535"},
      {"[::1]:", "the port must be a number from 1 to 65535"},
      {"[::1", "expected [ADDRESS] or [ADDRESS]:PORT"},
      {"[::1]80", "expected [ADDRESS] or [ADDRESS]:PORT"},
      {"/run/x.sock", "a path? unix:/run/x.sock"},
      {"http://camera:7211", "no URL: HOST:PORT"},
      {"http://camera", "no URL: HOST:PORT"},
      {"::1:7211", "a port? [::1]:7211"}};
  for (const auto& [text, reason] : cases) {
    const std::string whole = "--listen: '" + text + "' is not an endpoint: " + reason;
    const std::string& endpoint = text;
    EXPECT_THAT([&] { ParseEndpoint(endpoint, "--listen"); }, testing::ThrowsMessage<Exception>(whole));
  }
}

}  // namespace
