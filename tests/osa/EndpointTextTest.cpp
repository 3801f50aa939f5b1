#include "tavix/osa/EndpointText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace tavix::osa {

using testing::Optional;

namespace {

// What a text is taken apart into: "host|port", a port that is missing as "-".
std::string Split(const std::string& text) {
  const std::optional<EndpointText> parts = SplitEndpoint(text);
  if (!parts) return "none";
  return parts->isUnix ? "unix|" + parts->path : parts->host + "|" + parts->port.value_or("-");
}

}  // namespace

TEST(EndpointText, HostMayHaveAPort) {
  EXPECT_EQ(Split("camera"), "camera|-");
  EXPECT_EQ(Split("camera:80"), "camera|80");
  EXPECT_EQ(Split("127.0.0.1:80"), "127.0.0.1|80");
}

TEST(EndpointText, AddressWithColonsHasAPortBehindItsBracketsOnly) {
  EXPECT_EQ(Split("::1"), "::1|-");
  EXPECT_EQ(Split("[::1]"), "::1|-");
  EXPECT_EQ(Split("[::1]:80"), "::1|80");
}

TEST(EndpointText, PartsMayBeEmpty) {
  EXPECT_EQ(Split(""), "|-");
  EXPECT_EQ(Split(":"), "|");
  EXPECT_EQ(Split("[]:"), "|");
  EXPECT_EQ(Split("unix:"), "unix|");
}

TEST(EndpointText, BracketsThatDoNotFitAreNone) {
  for (const char* text : {"[", "[::1", "[::1]x", "[::1]80", "[::1]]:80"}) EXPECT_EQ(Split(text), "none") << text;
}

TEST(EndpointText, EverythingBehindUnixIsThePath) {
  EXPECT_EQ(Split("unix:/run/a:80"), "unix|/run/a:80");
  EXPECT_EQ(Split("unix:[x"), "unix|[x");
  EXPECT_EQ(Split("UNIX:x"), "UNIX|x");
}

TEST(EndpointText, ThatIsNoneMayHaveMeantAnother) {
  EXPECT_EQ(SuggestEndpoint("/run/x.sock"), "a path? unix:/run/x.sock");
  EXPECT_EQ(SuggestEndpoint("/run/a:80"), "a path? unix:/run/a:80");
  EXPECT_EQ(SuggestEndpoint("./a:80"), "a path? unix:./a:80");
  EXPECT_EQ(SuggestEndpoint("run/x"), "a path? unix:run/x");
  for (const char* url : {"http://camera", "http://camera:80/x", "tcp://[::1]:80", "camera:80/x"})
    EXPECT_EQ(SuggestEndpoint(url), "no URL: HOST:PORT") << url;
  EXPECT_EQ(SuggestEndpoint("::1:7211"), "a port? [::1]:7211");
  EXPECT_EQ(SuggestEndpoint("fe80::1:80"), "a port? [fe80::1]:80");
}

TEST(EndpointText, ThatMeansNothingElseHasNoSuggestion) {
  for (const char* text : {"", ":", "camera", "camera:http", "::1", "::1:http", "[::1]80", "unix:", "unix:/"})
    EXPECT_EQ(SuggestEndpoint(text), "") << text;
}

TEST(EndpointText, PathOfASocketFitsIntoItsAddress) {
  EXPECT_TRUE(IsSocketPath("x"));
  EXPECT_TRUE(IsSocketPath(std::string(kMaxSocketPathBytes, 'x')));
  EXPECT_FALSE(IsSocketPath(std::string(kMaxSocketPathBytes + 1, 'x')));
  EXPECT_FALSE(IsSocketPath(""));
  EXPECT_FALSE(IsSocketPath(std::string("a\0b", 3)));
}

TEST(EndpointText, PortIsANumberFrom0To65535) {
  EXPECT_THAT(ParsePort("0"), Optional(0));
  EXPECT_THAT(ParsePort("00080"), Optional(80));
  EXPECT_THAT(ParsePort("65535"), Optional(65535));
  for (const char* text : {"", "65536", "99999", "000080", "-1", "+1", " 1", "1 ", "0x1", "http"})
    EXPECT_EQ(ParsePort(text), std::nullopt) << text;
}

}  // namespace tavix::osa
