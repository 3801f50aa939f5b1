#include "programs/web/http/RequestParser.h"

#include <gtest/gtest.h>

#include <random>

#include "programs/web/http/Query.h"
#include "programs/web/http/Refusal.h"
#include "programs/web/interface/JsonBody.h"
#include "programs/web/interface/Sha256.h"
#include "programs/web/interface/Version.h"

namespace tavix::test {

namespace {

constexpr char kRequest[] =
    "PATCH /api/v1/group?name=a HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n"
    "4\r\n{\"k\"\r\n4\r\n: 1}\r\n0\r\n\r\n";

// Has a body taken as well.
size_t TakeAll(web::RequestParser& parser, std::string_view bytes) {
  const size_t taken = parser.Take(bytes);
  if (parser.GetState() != web::RequestParser::State::kHeadEnd) return taken;
  parser.AcceptBody(parser.GetAnnouncedBytes());
  return taken + parser.Take(bytes.substr(taken));
}

// Parts of random sizes, as a network delivers them.
web::RequestParser ParseInParts(const std::string& bytes, std::mt19937& random) {
  web::RequestParser parser({1024, 1024});
  for (size_t at = 0; at < bytes.size();) {
    const size_t size = std::min<size_t>(1 + random() % 7, bytes.size() - at);
    const size_t taken = TakeAll(parser, std::string_view(bytes).substr(at, size));
    at += taken;
    if (taken < size) break;
  }
  return parser;
}

// How the body of a request is read that has this framing.
web::RequestParser ParseBody(const std::string& framing) {
  web::RequestParser parser({1024, 1024 * 1024});
  TakeAll(parser, "POST / HTTP/1.1\r\nHost: localhost\r\n" + framing);
  return parser;
}

std::string ToHex(const std::array<unsigned char, 32>& digest) {
  std::string text;
  for (const unsigned char byte : digest) text += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
  return text;
}

}  // namespace

TEST(RequestParser, ReadsARequestHoweverItsBytesArrive) {
  std::mt19937 random(7);
  for (int i = 0; i < 200; ++i) {
    web::RequestParser parser = ParseInParts(kRequest, random);
    ASSERT_EQ(parser.GetState(), web::RequestParser::State::kComplete) << parser.GetReason();
    EXPECT_EQ(parser.GetRequest().path, "/api/v1/group");
    EXPECT_EQ(parser.GetRequest().query, "name=a");
    EXPECT_EQ(parser.GetRequest().body, R"({"k": 1})");
  }
}

TEST(RequestParser, TakesNothingOfTheNextRequest) {
  web::RequestParser parser({1024, 1024});
  const std::string both = std::string(kRequest) + kRequest;
  EXPECT_EQ(TakeAll(parser, both), sizeof kRequest - 1);
}

TEST(RequestParser, TakesNothingOfABodyBeforeItIsAccepted) {
  const std::string request = kRequest;
  web::RequestParser parser({1024, 1024});
  const size_t head = parser.Take(request);
  EXPECT_EQ(head, request.find("\r\n\r\n") + 4);
  EXPECT_EQ(parser.GetState(), web::RequestParser::State::kHeadEnd);
  EXPECT_EQ(parser.GetRequest().path, "/api/v1/group");
  EXPECT_EQ(parser.Take(request.substr(head)), 0U);
  parser.AcceptBody(7);
  parser.Take(request.substr(head));
  EXPECT_EQ(parser.GetStatus(), 413);
}

TEST(RequestParser, RefusesALengthBeyondWhatTheRequestMayHave) {
  web::RequestParser parser({1024, 1024});
  parser.Take("POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 9\r\n\r\n");
  EXPECT_EQ(parser.GetAnnouncedBytes(), 9U);
  parser.AcceptBody(8);
  EXPECT_EQ(parser.GetStatus(), 413);
}

TEST(RequestParser, ReadsEachLineOfChunksStrictly) {
  const std::string chunked = "Transfer-Encoding: chunked\r\n\r\n";
  for (const char* body : {"1;a=\rb\r\nx\r\n0\r\n\r\n", "1;a=\x01\r\nx\r\n0\r\n\r\n", "0\r\nno colon\r\n\r\n",
                           "0\r\na b: c\r\n\r\n", "0\r\na: \x7F\r\n\r\n", "0\r\n: x\r\n\r\n"})
    EXPECT_EQ(ParseBody(chunked + body).GetStatus(), 400) << body;
  EXPECT_EQ(ParseBody(chunked + "1;a=\"b\"\r\nx\r\n0\r\nTrailer: x\r\n\r\n").GetRequest().body, "x");
}

TEST(RequestParser, BoundsWhatChunksCost) {
  std::string body = "Transfer-Encoding: chunked\r\n\r\n";
  for (int i = 0; i < 1000; ++i) body += "1;" + std::string(200, 'x') + "\r\nx\r\n";
  EXPECT_EQ(ParseBody(body + "0\r\n\r\n").GetStatus(), 400);
}

TEST(RequestParser, ReadsChangedBytesTheSameWayInEveryPartition) {
  std::mt19937 random(11);
  for (int i = 0; i < 5000; ++i) {
    std::string bytes = kRequest;
    for (int change = 0; change < 3; ++change) bytes[random() % bytes.size()] = static_cast<char>(random() % 256);
    web::RequestParser whole({1024, 1024});
    TakeAll(whole, bytes);
    const web::RequestParser parts = ParseInParts(bytes, random);
    EXPECT_EQ(whole.GetState(), parts.GetState()) << bytes;
    EXPECT_EQ(whole.GetStatus(), parts.GetStatus()) << bytes;
  }
}

TEST(Query, DecodesNamesAndValues) {
  const web::Query query("a=%00%2F+%2B&b&c=1=2&a=x&&n=base64:/w==");
  EXPECT_EQ(query.Find("a"), std::string("\0/ +", 4));
  EXPECT_EQ(query.FindAll("a").size(), 2U);
  EXPECT_EQ(query.Find("b"), "");
  EXPECT_EQ(query.Find("c"), "1=2");
  EXPECT_EQ(query.FindName("n"), "\xFF");
  EXPECT_FALSE(query.Find("d"));
}

TEST(Query, RefusesWhatIsNoEncoding) {
  for (const char* text : {"a=%", "a=%4", "a=%4g", "%zz=1"}) EXPECT_THROW(web::Query query(text), web::Refusal) << text;
  EXPECT_THROW(web::Query("n=base64:!").FindName("n"), web::Refusal);
  EXPECT_THROW(web::Query("n=-1").FindNumber("n", 0, 9, 0), web::Refusal);
  EXPECT_THROW(web::Query("n=2").HasFlag("n"), web::Refusal);
}

TEST(JsonBody, SurvivesChangedBytes) {
  std::mt19937 random(13);
  size_t read = 0;
  for (int i = 0; i < 5000; ++i) {
    std::string text =
        R"({"set": {"a": {"k": 1.5e3, "l": {"base64": "/w=="}}}, "unset": {"b": ["\u00e9", true, null]}})";
    for (int change = 0; change < 2; ++change) text[random() % text.size()] = static_cast<char>(random() % 128);
    try {
      web::ParseJsonBody(text);
      ++read;
    } catch (const web::Refusal& refusal) {
      EXPECT_EQ(refusal.GetStatus(), 400) << text;
    }
  }
  EXPECT_GT(read, 100U);
}

TEST(JsonBody, HasNoMoreValuesThanItsMemoryAllows) {
  const auto list = [](size_t count) {
    std::string text = "[0";
    while (--count > 0) text += ",0";
    return text + "]";
  };
  EXPECT_EQ(web::ParseJsonBody(list(1000)).items.size(), 1000U);
  EXPECT_THROW(web::ParseJsonBody(list(100000)), web::Refusal);
  std::string object = "{";
  for (int i = 10000; i < 30000; ++i) object += (i > 10000 ? ",\"" : "\"") + std::to_string(i) + "\":1";
  EXPECT_EQ(web::ParseJsonBody(object + "}").members.size(), 20000U);
}

TEST(Sha256, IsWhatTheStandardShows) {
  web::Sha256 abc;
  abc.Add("abc");
  EXPECT_EQ(ToHex(abc.Finish()), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  web::Sha256 million;
  for (int i = 0; i < 1000; ++i) million.Add(std::string(1000, 'a'));
  EXPECT_EQ(ToHex(million.Finish()), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Version, DiffersWithEachByte) {
  const std::string version = web::VersionOf({{"a", "b"}});
  EXPECT_EQ(version.size(), 32U);
  EXPECT_EQ(web::VersionOf({{"a", "b"}}), version);
  EXPECT_NE(web::VersionOf({{"ab", ""}}), version);
  EXPECT_NE(web::VersionOf({}), version);
  EXPECT_NE(web::VersionOf({{"a", "b"}}, "salt"), version);
}

}  // namespace tavix::test
