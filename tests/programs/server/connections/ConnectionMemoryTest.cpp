#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <new>
#include <optional>

#include "programs/server/connections/Connection.h"
#include "tavix/osa/Descriptor.h"
#include "tests/programs/server/connections/ConnectionSetup.h"
#include "tests/support/ListeningSocket.h"
#include "tests/support/RefusedAllocation.h"

namespace tavix::test {

namespace {

class UnmadeConnection : public testing::Test {
 protected:
  // Whether it is made when that allocation of its constructor fails.
  bool Make(osa::Descriptor descriptor, int failing) {
    std::optional<daemon::Connection> connection;
    const RefusedAllocation refused(failing);
    try {
      connection.emplace(std::move(descriptor), _poll.Get(), _wake.Get(), _shared);
    } catch (const std::bad_alloc&) {
    }
    return connection.has_value();
  }

  ConnectionSetup _setup;
  const daemon::Connection::Shared _shared = _setup.GetShared();
  const osa::Descriptor _poll{epoll_create1(EPOLL_CLOEXEC)};
  const osa::Descriptor _wake{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
};

}  // namespace

TEST_F(UnmadeConnection, ClosesItsDescriptorWhicheverAllocationFailed) {
  bool isMade = false;
  for (int failing = 0; !isMade; ++failing) {
    ASSERT_LT(failing, 1000);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const osa::Descriptor peer(ends[1]);
    isMade = Make(osa::Descriptor(ends[0]), failing);
    EXPECT_TRUE(failing > 0 || !isMade);
    char byte = 0;
    EXPECT_EQ(recv(peer.Get(), &byte, 1, MSG_DONTWAIT), 0) << "open after failure " << failing;
  }
}

}  // namespace tavix::test
