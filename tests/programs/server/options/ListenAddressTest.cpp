#include "programs/server/options/ListenAddress.h"

#include <gtest/gtest.h>

#include <string>

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

TEST(ListenAddress, WithAPathThatNoSocketCanHaveIsNone) {
  EXPECT_THROW(Parse("unix:"), osa::Exception);
  EXPECT_THROW(Parse(std::string("unix:a\0b", 8)), osa::Exception);
  EXPECT_THROW(Parse("unix:" + std::string(200, 'x')), osa::Exception);
}

}  // namespace tavix::test
