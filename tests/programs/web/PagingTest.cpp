// A store that is listed page by page while others change it.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/programs/web/Web.h"
#include "tests/support/RunLength.h"

namespace tavix::test {

using nlohmann::json;

namespace {

std::string NameOf(int number) {
  return "g" + std::to_string(1'000'000 + number);
}

std::string MakeGroups(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += "[" + NameOf(i) + "]\nk=0\n";
  return text;
}

// Changes groups that stay, and makes and deletes others between them, until it is destroyed.
class Changing {
 public:
  Changing(unsigned short port, int count) : _thread([this, port, count] { Run(port, count); }) {}

  ~Changing() {
    _ends = true;
    _thread.join();
  }

 private:
  void Run(unsigned short port, int count) const {
    ProtocolClient client(port);
    for (int round = 0; !_ends; ++round) {
      std::string requests;
      for (int i = round % 97; i < count; i += 997) {
        const std::string added = NameOf(i) + "-added";
        requests += "merge\n[" + NameOf(i) + "]\nk=" + std::to_string(round) + "\n[" + added + "]\nk=1\n.\n";
        if (round % 2 == 1) requests += "overwrite\n" + added + "\n.\n.\n";
      }
      client.Send(requests);
      client.AwaitHandled();
    }
  }

  std::atomic<bool> _ends{false};
  std::thread _thread;
};

}  // namespace

TEST(WebPaging, ShowsEachGroupOnceWhileOthersChangeThem) {
  const int count = IsLongRun() ? 100'000 : 20'000;
  const Web web({}, MakeGroups(count), "");
  const Changing changing(web.daemon.GetPort(), count);
  HttpConnection connection = web.Connect();
  int stayed = 0;
  std::string last;
  std::string after;
  do {
    const HttpReply reply = connection.Ask("GET", "/api/v1/groups?limit=1000" + after);
    ASSERT_EQ(reply.status, 200) << reply.body;
    const json page = Parse(reply);
    for (const json& group : page["groups"]) {
      const std::string name = group["name"];
      EXPECT_LT(last, name);
      last = name;
      if (name.find("-added") != std::string::npos) continue;
      EXPECT_EQ(name, NameOf(stayed++));
    }
    after = page["next"].is_null() ? std::string() : "&after=" + page["next"].get<std::string>();
  } while (!after.empty());
  EXPECT_EQ(stayed, count);
}

}  // namespace tavix::test
