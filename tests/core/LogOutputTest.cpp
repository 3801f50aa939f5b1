#include "tavix/core/LogOutput.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include "tavix/core/Logger.h"
#include "tavix/osa/Descriptor.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using tavix::core::MakeSystemLogOutput;
using tavix::osa::Descriptor;
using tavix::test::TemporaryDirectory;

// The socket of a system log's daemon that reads when it is told to.
class SystemLogSocket {
 public:
  explicit SystemLogSocket(const std::string& path) {
    path.copy(_address.sun_path, sizeof _address.sun_path - 1);
    EXPECT_EQ(bind(_socket.Get(), Address(), sizeof _address), 0);
  }

  // One sender alone may come to the end of its own buffer first.
  void Fill() {
    for (bool wasFull = false; !wasFull;) {
      const Descriptor sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
      wasFull = true;
      while (sendto(sender.Get(), "x", 1, MSG_DONTWAIT, Address(), sizeof _address) == 1) wasFull = false;
    }
  }

  void Drain() {
    char byte;
    while (recv(_socket.Get(), &byte, 1, MSG_DONTWAIT) >= 0) continue;
  }

 private:
  const sockaddr* Address() const { return reinterpret_cast<const sockaddr*>(&_address); }

  sockaddr_un _address{AF_UNIX, {}};
  Descriptor _socket{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

TEST(SystemLogOutput, TakesNothingWhileTheSystemLogIsStuck) {
  const TemporaryDirectory directory;
  SystemLogSocket log(directory.Path("log"));
  const auto output = MakeSystemLogOutput(directory.Path("log"));
  EXPECT_TRUE(output->Write(tavix::core::kLogError, "", "a test's"));
  log.Fill();
  EXPECT_FALSE(output->Write(tavix::core::kLogError, "", "a test's"));
  log.Drain();
  EXPECT_TRUE(output->Write(tavix::core::kLogError, "", "a test's"));
}

TEST(SystemLogOutput, ADaemonThatIsNotThereIsNotStuck) {
  const TemporaryDirectory directory;
  const auto output = MakeSystemLogOutput(directory.Path("log"));
  EXPECT_TRUE(output->Write(tavix::core::kLogError, "", "a test's"));
}

}  // namespace
