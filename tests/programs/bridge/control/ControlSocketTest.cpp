#include "programs/bridge/control/ControlSocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <list>
#include <string>
#include <vector>

#include "tavix/osa/Exception.h"
#include "tests/programs/bridge/control/ControlClient.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

namespace {

using bridge::ControlSocket;
using bridge::Milliseconds;
using testing::HasSubstr;

// A socket whose answers are the requests, and a clock that the test moves.
class ControlSocketTest : public testing::Test {
 protected:
  ControlClient Connect() {
    ControlClient client(path);
    socket.Run(now);
    return client;
  }

  size_t CountWatched() const {
    std::vector<pollfd> watched;
    socket.AddTo(watched);
    return watched.size();
  }

  TemporaryDirectory directory;
  const std::string path = directory.Path("bridge-a.sock");
  std::vector<std::string> requests;
  std::string padding;
  Milliseconds now{0};
  ControlSocket socket{path,
                       [this](const std::string& request) {
                         requests.push_back(request);
                         return "[" + request + padding + "]";
                       },
                       "too long"};
};

TEST_F(ControlSocketTest, AnswersALineAndHangsUp) {
  const ControlClient client = Connect();
  client.Send("sta");
  socket.Run(now);
  client.Send("tus\n");
  socket.Run(now);
  EXPECT_EQ(client.ReadToEnd(), "[status]\n");
  EXPECT_EQ(CountWatched(), 1u);
}

TEST_F(ControlSocketTest, IsForTheProcesssUserAndGroup) {
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0660U);
}

TEST_F(ControlSocketTest, DropsAClientThatLeavesInTheMiddle) {
  {
    const ControlClient client = Connect();
    client.Send("sta");
  }
  socket.Run(now);  // reads what came
  socket.Run(now);  // and finds the end behind it
  EXPECT_EQ(CountWatched(), 1u);
  EXPECT_TRUE(requests.empty());
}

TEST_F(ControlSocketTest, EndsAClientThatSaysNothingForFiveSeconds) {
  const ControlClient client = Connect();
  ASSERT_EQ(socket.GetNext(), ControlSocket::kRequestTime);
  now = ControlSocket::kRequestTime;
  socket.Run(now);
  EXPECT_EQ(client.ReadToEnd(), "");
  EXPECT_FALSE(socket.GetNext());
}

TEST_F(ControlSocketTest, AnswersARequestThatIsThereHoweverLateItIsLookedFor) {
  const ControlClient client = Connect();
  client.Send("status\n");
  now = ControlSocket::kRequestTime;
  socket.Run(now);
  EXPECT_EQ(client.ReadToEnd(), "[status]\n");
}

TEST_F(ControlSocketTest, EndsAClientThatDoesNotTakeItsAnswer) {
  padding.assign(size_t{8} << 20U, 'x');
  const ControlClient client = Connect();
  client.Send("status\n");
  socket.Run(now);
  EXPECT_EQ(CountWatched(), 2u);
  now += ControlSocket::kAnswerTime;
  socket.Run(now);
  EXPECT_EQ(CountWatched(), 1u);
}

TEST_F(ControlSocketTest, RefusesARequestThatIsTooLong) {
  const ControlClient client = Connect();
  client.Send(std::string(ControlSocket::kMaxRequest + 1, 'a'));
  socket.Run(now);
  EXPECT_EQ(client.ReadToEnd(), "too long\n");
  EXPECT_TRUE(requests.empty());
}

TEST_F(ControlSocketTest, LetsFurtherClientsWaitForAPlace) {
  std::list<ControlClient> clients;
  for (size_t i = 0; i < ControlSocket::kMaxClients; ++i) clients.emplace_back(path);
  socket.Run(now);
  const ControlClient last(path);
  last.Send("status\n");
  socket.Run(now);
  EXPECT_FALSE(last.HasBytes());
  EXPECT_EQ(CountWatched(), ControlSocket::kMaxClients);

  clients.pop_front();
  socket.Run(now);
  socket.Run(now);
  EXPECT_EQ(last.ReadToEnd(), "[status]\n");
}

TEST_F(ControlSocketTest, GivesThePlaceOfASilentClientToOneThatWaits) {
  std::list<ControlClient> clients;
  for (size_t i = 0; i < ControlSocket::kMaxClients; ++i) clients.emplace_back(path);
  socket.Run(now);
  const ControlClient one(path);
  one.Send("one\n");
  const ControlClient other(path);
  other.Send("other\n");
  socket.Run(now);
  ASSERT_EQ(socket.GetNext(), ControlSocket::kCrowdedTime);
  now = ControlSocket::kCrowdedTime;
  clients.front().Send("first\n");  // gives its place away by itself
  socket.Run(now);
  socket.Run(now);
  EXPECT_EQ(clients.front().ReadToEnd(), "[first]\n");
  EXPECT_EQ(one.ReadToEnd(), "[one]\n");
  EXPECT_EQ(other.ReadToEnd(), "[other]\n");
  EXPECT_EQ(std::next(clients.begin())->ReadToEnd(), "");
}

TEST_F(ControlSocketTest, AnswersAClientThatSendsMoreThanItsRequest) {
  const ControlClient client = Connect();
  client.Send("status\n" + std::string(2000, 'x'));
  socket.Run(now);
  EXPECT_EQ(client.ReadToEnd(), "[status]\n");
}

TEST(ControlSocket, ReplacesTheSocketOfAProcessThatWasKilled) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.sock");
  const auto answer = [](const std::string&) { return std::string(); };
  {
    const ControlSocket first(path, answer, "");
    const ControlSocket second(path, answer, "");
    const ControlClient client(path);
  }
  EXPECT_FALSE(directory.Has("a.sock"));
}

TEST(ControlSocket, NamesThePlaceThatItCannotListenAt) {
  const TemporaryDirectory directory;
  for (const std::string& path : {directory.Path("gone/a.sock"), directory.Path(std::string(120, 'a'))}) {
    try {
      const ControlSocket socket(path, nullptr, "");
      ADD_FAILURE() << path;
    } catch (const osa::Exception& error) {
      EXPECT_THAT(error.what(), HasSubstr("Failed to listen on '" + path + "': "));
    }
  }
}

}  // namespace

}  // namespace tavix::test
