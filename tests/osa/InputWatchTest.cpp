#include "tavix/osa/InputWatch.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <memory>
#include <string>

#include "tavix/osa/Descriptor.h"
#include "tavix/osa/PipeStreamPair.h"
#include "tavix/osa/TcpSocket.h"
#include "tavix/osa/TcpSocketStream.h"
#include "tavix/osa/Time.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/NoMoreDescriptors.h"

namespace {

using tavix::osa::Descriptor;
using tavix::osa::kWaitForever;
using tavix::osa::PipeStreamPair;
using tavix::osa::TcpSocket;
using tavix::osa::TcpSocketStream;
using tavix::test::BackgroundCall;
using tavix::test::NoMoreDescriptors;

// What is watched, and the other end of it.
struct WatchedPipe {
  void Send(const std::string& text) { *pipe.GetOstream() << text << std::flush; }
  void End() { pipe.ClosePipe(); }

  PipeStreamPair pipe;
  std::istream& in = *pipe.GetIstream();
  tavix::osa::InputWatch& watch = pipe.GetWatch();
};

struct WatchedSocket {
  WatchedSocket() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    socket = TcpSocket::Adopt(ends[0]);
    peer.Reset(ends[1]);
    stream = std::make_unique<TcpSocketStream>(socket.get(), kWaitForever);
  }

  void Send(const std::string& text) {
    EXPECT_EQ(send(peer.Get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
  }
  void End() { peer.Reset(); }

  std::unique_ptr<TcpSocket> socket;
  Descriptor peer;
  std::unique_ptr<TcpSocketStream> stream;
};

struct WatchedSocketStream : WatchedSocket {
  std::istream& in = *stream;
  tavix::osa::InputWatch& watch = *stream->WatchInput();
};

template <class Watched>
class InputWatch : public testing::Test, public Watched {
 protected:
  std::string ReadLine() {
    std::string line;
    std::getline(this->in, line);
    return line;
  }
};

using Watcheds = testing::Types<WatchedPipe, WatchedSocketStream>;
TYPED_TEST_SUITE(InputWatch, Watcheds);

TYPED_TEST(InputWatch, InputEndsTheSleepUntilItIsRead) {
  BackgroundCall sleeper([&] { EXPECT_TRUE(this->watch.Await()); });
  sleeper.AwaitBlocked();
  EXPECT_FALSE(sleeper.HasEnded());
  this->Send("text\n");
  sleeper.Join();
  EXPECT_TRUE(this->watch.Await());
  EXPECT_EQ(this->ReadLine(), "text");
  this->watch.Wake();
  EXPECT_FALSE(this->watch.Await());
}

TYPED_TEST(InputWatch, InputOfAPauseEndsTheSleepWhenItIsResumed) {
  BackgroundCall sleeper([&] { EXPECT_TRUE(this->watch.Await()); });
  sleeper.AwaitBlocked();
  this->watch.Pause();
  this->Send("text\n");
  sleeper.AwaitBlocked();
  EXPECT_FALSE(sleeper.HasEnded());
  this->watch.Resume();
  sleeper.Join();
}

TYPED_TEST(InputWatch, InputThatIsReadInAPauseEndsNoSleep) {
  BackgroundCall sleeper([&] { EXPECT_FALSE(this->watch.Await()); });
  sleeper.AwaitBlocked();
  this->watch.Pause();
  this->Send("text\n");
  EXPECT_EQ(this->ReadLine(), "text");
  this->watch.Resume();
  sleeper.AwaitBlocked();
  EXPECT_FALSE(sleeper.HasEnded());
  this->watch.Wake();
  sleeper.Join();
}

TYPED_TEST(InputWatch, AWakeOfNobodyEndsTheNextSleepAndNoOther) {
  this->watch.Wake();
  this->watch.Wake();
  EXPECT_FALSE(this->watch.Await());
  this->Send("text\n");
  EXPECT_TRUE(this->watch.Await());
}

TYPED_TEST(InputWatch, TheEndOfTheStreamEndsEverySleep) {
  BackgroundCall sleeper([&] { EXPECT_TRUE(this->watch.Await()); });
  sleeper.AwaitBlocked();
  this->watch.Pause();
  this->End();
  sleeper.Join();
  EXPECT_TRUE(this->watch.Await());
}

TEST(SocketWatch, ThePeersEndEndsASleepInAPauseThoughThePeerStillReads) {
  WatchedSocketStream watched;
  BackgroundCall sleeper([&] { EXPECT_TRUE(watched.watch.Await()); });
  sleeper.AwaitBlocked();
  watched.watch.Pause();
  EXPECT_EQ(shutdown(watched.peer.Get(), SHUT_WR), 0);
  sleeper.Join();
}

// A server that reads no request before its output was read goes on then.
TEST(SocketWatch, AWriteThatWaitsForThePeerResumesTheWatch) {
  WatchedSocketStream watched;
  watched.watch.Pause();
  watched.Send("text\n");
  BackgroundCall writer([&] { watched.stream->GetOstream() << std::string(16 << 20, 'x') << std::flush; });
  EXPECT_TRUE(watched.watch.Await());
  EXPECT_FALSE(writer.HasEnded());
  watched.End();
  writer.Join();
}

TEST(SocketWatch, CannotBeMadeWithoutDescriptors) {
  {
    WatchedSocket other;  // a sanitizer that meets the class for the first time needs descriptors itself
    EXPECT_NE(other.stream->WatchInput(), nullptr);
  }
  WatchedSocket watched;
  {
    const NoMoreDescriptors none;
    EXPECT_EQ(watched.stream->WatchInput(), nullptr);
  }
  EXPECT_NE(watched.stream->WatchInput(), nullptr);
}

}  // namespace
