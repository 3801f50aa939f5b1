#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "programs/web/http/EmbeddedFile.h"
#include "programs/web/http/Inflate.h"
#include "tests/programs/web/Web.h"

namespace tavix::test {

using web::EmbeddedFile;

namespace {

constexpr char kGzip[] = "Accept-Encoding: gzip, br\r\n";

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

std::string ReadSource(const EmbeddedFile& file) {
  const std::string name = file.name;
  const bool isDescription = name == "api/v1/openapi.json";
  return ReadFile(std::string(TAVIX_SOURCE_DIR "/programs/web/") +
                  (isDescription ? "interface/openapi.json" : "page/" + name));
}

// What gzip makes of a text, without its head and its tail.
std::string Deflate(const TemporaryDirectory& directory, const std::string& text, const std::string& level) {
  const std::string path = directory.Write("text", text);
  if (std::system(("gzip -nc " + level + " '" + path + "' >'" + path + ".gz'").c_str()) != 0)
    throw std::runtime_error("gzip failed");
  const std::string bytes = ReadFile(path + ".gz");
  return bytes.substr(10, bytes.size() - 18);
}

std::string MakeText(size_t size, unsigned kinds) {
  std::string text;
  for (unsigned state = 1; text.size() < size;) {
    state = state * 1103515245 + 12345;
    text += static_cast<char>('A' + (state >> 16) % kinds);
  }
  return text;
}

HttpReply Ask(const WebProcess& process, const std::string& method, const std::string& target,
              const std::string& headers = {}) {
  return HttpConnection(process.GetPort()).Ask(method, target, "", headers);
}

}  // namespace

TEST(WebPage, IsServedAsItLiesInTheSources) {
  const Web web;
  for (const EmbeddedFile& file : web::GetEmbeddedFiles()) {
    const HttpReply reply = Ask(web.process, "GET", std::string("/") + file.name);
    EXPECT_EQ(reply.status, 200) << file.name;
    EXPECT_EQ(reply.body, ReadSource(file)) << file.name;
    EXPECT_EQ(reply.headers.count("content-encoding"), 0U) << file.name;
  }
  EXPECT_EQ(Ask(web.process, "GET", "/").body, Ask(web.process, "GET", "/index.html").body);
}

TEST(WebPage, IsCompressedForThoseThatTakeItSo) {
  const Web web;
  const HttpReply reply = Ask(web.process, "GET", "/", kGzip);
  EXPECT_EQ(reply.headers.at("content-encoding"), "gzip");
  EXPECT_EQ(reply.headers.at("vary"), "Accept-Encoding");
  EXPECT_EQ(web::Inflate(reply.body.substr(10), 1 << 20), Ask(web.process, "GET", "/").body);
  EXPECT_NE(reply.headers.at("etag"), Ask(web.process, "GET", "/").headers.at("etag"));
}

TEST(WebPage, IsCompressedOnlyAsTheHeaderAllows) {
  const Web web;
  for (const char* accepted : {"gzip", "GZIP;q=0.001", "br;q=1.0, *", "br, gzip ; q=1"})
    EXPECT_EQ(Ask(web.process, "GET", "/", std::string("Accept-Encoding: ") + accepted + "\r\n")
                  .headers.count("content-encoding"),
              1U)
        << accepted;
  for (const char* refused : {"identity", "gzip;q=0", "*, gzip;q=0.000", "br", "", "*;q=0"})
    EXPECT_EQ(Ask(web.process, "GET", "/", std::string("Accept-Encoding: ") + refused + "\r\n")
                  .headers.count("content-encoding"),
              0U)
        << refused;
}

TEST(WebPage, IsNotSentAgainToThoseThatHaveIt) {
  const Web web;
  for (const std::string coding : {"", kGzip}) {
    const std::string tag = Ask(web.process, "GET", "/", coding).headers.at("etag");
    const HttpReply same = Ask(web.process, "GET", "/", coding + "If-None-Match: \"x\", " + tag + "\r\n");
    EXPECT_EQ(same.status, 304);
    EXPECT_EQ(same.headers.at("etag"), tag);
    EXPECT_EQ(same.headers.at("cache-control"), "no-cache");
    EXPECT_EQ(Ask(web.process, "GET", "/", coding + "If-None-Match: \"x\"\r\n").status, 200);
  }
}

TEST(WebPage, TellsBrowsersWhatItMayDo) {
  const Web web;
  const HttpReply reply = Ask(web.process, "GET", "/", kGzip);
  EXPECT_EQ(reply.headers.at("content-type"), "text/html; charset=utf-8");
  EXPECT_EQ(reply.headers.at("content-security-policy"),
            "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self'; "
            "frame-ancestors 'none'; base-uri 'none'");
  EXPECT_EQ(reply.headers.at("x-content-type-options"), "nosniff");
  EXPECT_EQ(reply.headers.at("referrer-policy"), "no-referrer");
  EXPECT_EQ(reply.headers.at("cache-control"), "no-cache");
}

TEST(WebPage, AnswersHeadAsGetWithoutTheBody) {
  const Web web;
  const HttpReply head = Ask(web.process, "HEAD", "/", kGzip);
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.headers, Ask(web.process, "GET", "/", kGzip).headers);
}

TEST(WebPage, TakesNothingElse) {
  const Web web;
  for (const char* method : {"POST", "PUT", "DELETE", "PATCH", "OPTIONS"}) {
    const HttpReply reply = Ask(web.process, method, "/");
    EXPECT_EQ(reply.status, 405) << method;
    EXPECT_EQ(reply.headers.at("allow"), "GET, HEAD") << method;
  }
  for (const char* target : {"/nothing", "/index.html/", "//", "/page/index.html", "/../index.html", "/%69ndex.html"})
    EXPECT_EQ(Ask(web.process, "GET", target).status, 404) << target;
}

// The answers are more than the program keeps for one client: it goes on when some of them were taken.
TEST(WebPage, AnswersAllRequestsThatComeBeforeAnswersAreTaken) {
  const Web web;
  constexpr int kRequests = 300;
  HttpConnection connection(web.process.GetPort());
  for (int i = 0; i < kRequests; ++i) connection.SendRequest("GET", "/style.css");
  for (int i = 0; i < kRequests; ++i) ASSERT_EQ(connection.ReadReply().status, 200) << i;
}

TEST(WebPage, NeedsNoLogin) {
  const WebOnSocket web;
  EXPECT_EQ(Ask(web.process, "GET", "/").status, 200);
  EXPECT_EQ(Ask(web.process, "GET", "/api/v1/groups").status, 401);
}

TEST(WebPage, IsAlsoReachedFromPagesOfOthers) {
  const Web web;
  const std::string foreign = "Sec-Fetch-Site: cross-site\r\n";
  EXPECT_EQ(Ask(web.process, "GET", "/", foreign).status, 200);
  EXPECT_EQ(Ask(web.process, "GET", "/", "Host: foreign.example\r\n").status, 421);
}

TEST(WebPage, LiesBelowTheBasePath) {
  const Web web({"--base-path", "/settings"});
  EXPECT_EQ(Ask(web.process, "GET", "/settings/").status, 200);
  EXPECT_EQ(Ask(web.process, "GET", "/settings/index.html").status, 200);
  EXPECT_EQ(Ask(web.process, "GET", "/").status, 404);
  EXPECT_EQ(Ask(web.process, "GET", "/settingsx/").status, 404);
  const HttpReply reply = Ask(web.process, "GET", "/settings");
  EXPECT_EQ(reply.status, 302);
  EXPECT_EQ(reply.headers.at("location"), "/settings/");
  EXPECT_EQ(Ask(web.process, "POST", "/settings").status, 405);
}

TEST(WebInflate, ExpandsWhatGzipMakes) {
  const TemporaryDirectory directory;
  for (const char* level : {"-1", "-9"}) {
    for (const std::string& text : {std::string(), std::string("a"), std::string(70'000, 'x'), MakeText(100, 4),
                                    MakeText(200'000, 3), MakeText(200'000, 60), MakeText(70'000, 256)}) {
      const std::string bytes = Deflate(directory, text, level);
      EXPECT_EQ(web::Inflate(bytes, text.size()), text) << level << " " << text.size();
    }
  }
}

TEST(WebInflate, LeavesDamagedBytesAlone) {
  const TemporaryDirectory directory;
  const std::string text = MakeText(800, 20);
  const std::string bytes = Deflate(directory, text, "-9");
  for (size_t size = 0; size < bytes.size(); ++size)
    EXPECT_EQ(text.compare(0, web::Inflate(bytes.substr(0, size), text.size()).size(),
                           web::Inflate(bytes.substr(0, size), text.size())),
              0)
        << size;
  for (size_t at = 0; at < bytes.size() * 8; ++at) {
    std::string damaged = bytes;
    damaged[at / 8] = static_cast<char>(damaged[at / 8] ^ 1 << at % 8);
    EXPECT_LE(web::Inflate(damaged, text.size()).size(), text.size()) << at;
  }
}

}  // namespace tavix::test
