#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cstdlib>
#include <new>
#include <optional>

#include "programs/server/connections/Connection.h"
#include "tavix/osa/Descriptor.h"
#include "tests/programs/server/connections/ConnectionSetup.h"
#include "tests/support/ListeningSocket.h"

namespace {

thread_local int t_allocationsLeft = -1;  // until one fails; negative: none does

}  // namespace

void* operator new(size_t size) {
  const bool fails = t_allocationsLeft >= 0 && t_allocationsLeft-- == 0;
  void* const memory = fails ? nullptr : std::malloc(size);
  if (!memory) throw std::bad_alloc();
  return memory;
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size);
}

void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}

namespace tavix::test {

namespace {

class UnmadeConnection : public testing::Test {
 protected:
  // Whether it is made when that allocation of its constructor fails.
  bool Make(osa::Descriptor descriptor, int failing) {
    std::optional<daemon::Connection> connection;
    t_allocationsLeft = failing;
    try {
      connection.emplace(std::move(descriptor), _poll.Get(), _wake.Get(), _shared);
    } catch (const std::bad_alloc&) {
    }
    t_allocationsLeft = -1;
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
