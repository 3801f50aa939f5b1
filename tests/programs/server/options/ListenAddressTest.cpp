#include "programs/server/options/ListenAddress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tavix/osa/Exception.h"

namespace tavix::test {

namespace {

// "host|port|path" of an address.
std::string Parse(const std::string& text) {
  const daemon::ListenAddress address = daemon::ParseListenAddress(text);
  EXPECT_EQ(address.text, text);
  return address.host + "|" + address.port + "|" + address.path;
}

}  // namespace

TEST(ListenAddress, IsAHostWithItsPort) {
  EXPECT_EQ(Parse("127.0.0.1:7211"), "127.0.0.1|7211|");
  EXPECT_EQ(Parse("[::1]:0"), "::1|0|");
  EXPECT_EQ(Parse("camera:65535"), "camera|65535|");
}

TEST(ListenAddress, IsThePathOfAUnixSocket) {
  EXPECT_EQ(Parse("unix:/run/a:80"), "||/run/a:80");
}

TEST(ListenAddress, WithoutAPortIsNone) {
  for (const char* text : {"", "camera", "::1", "::1:80", "[::1]", "[::1]80", "[]:80", ":80", "camera:", "camera:http"})
    EXPECT_THROW(Parse(text), osa::Exception) << text;
}

TEST(ListenAddress, ThatIsNoneSaysWhatWasExpectedAndWhatWasPerhapsMeant) {
  const std::string expected = "expected HOST:PORT, [V6]:PORT or unix:PATH";
  const std::vector<std::pair<std::string, std::string>> cases = {{"camera", ""},
                                                                  {"/run/x.sock", "; a path? unix:/run/x.sock"},
                                                                  {"/run/x:80", "; a path? unix:/run/x:80"},
                                                                  {"http://camera:7211", "; no URL: HOST:PORT"},
                                                                  {"http://camera", "; no URL: HOST:PORT"},
                                                                  {"::1:7211", "; a port? [::1]:7211"}};
  for (const auto& [text, hint] : cases) {
    const std::string& address = text;
    EXPECT_THAT([&] { Parse(address); }, testing::ThrowsMessage<osa::Exception>(expected + hint));
  }
}

TEST(ListenAddress, WithAPathThatNoSocketCanHaveIsNone) {
  EXPECT_THROW(Parse("unix:"), osa::Exception);
  EXPECT_THROW(Parse(std::string("unix:a\0b", 8)), osa::Exception);
  EXPECT_THROW(Parse("unix:" + std::string(200, 'x')), osa::Exception);
}

}  // namespace tavix::test
