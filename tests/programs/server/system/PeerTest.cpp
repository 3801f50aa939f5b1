#include "programs/server/system/Peer.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "tavix/osa/Descriptor.h"
#include "tests/support/ListeningSocket.h"

namespace tavix::test {

namespace {

using daemon::Peer;
using settings::server::ClientIdentity;
using Connection = ClientIdentity::Connection;

std::vector<gid_t> OwnGroups() {
  std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr)));
  getgroups(static_cast<int>(groups.size()), groups.data());
  std::sort(groups.begin(), groups.end());
  return groups;
}

}  // namespace

TEST(Peer, OfAUnixSocketIsWhatTheKernelKnows) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const osa::Descriptor first(ends[0]);
  const osa::Descriptor second(ends[1]);
  const Peer peer(first.Get());
  EXPECT_EQ(peer.identity.connection, Connection::kUnix);
  EXPECT_EQ(peer.identity.user, geteuid());
  EXPECT_EQ(peer.identity.group, getegid());
  EXPECT_EQ(peer.identity.process, getpid());
  EXPECT_EQ(peer.groups, OwnGroups());
  EXPECT_EQ(peer.name, "user " + std::to_string(geteuid()) + " process " + std::to_string(getpid()));
  EXPECT_EQ(peer.lasting, "user " + std::to_string(geteuid()));
}

TEST(Peer, OverTcpIsNobody) {
  const ListeningSocket listener;
  const osa::Descriptor client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(listener.GetPort());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(connect(client.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const osa::Descriptor server = listener.Accept();
  const Peer peer(server.Get());
  EXPECT_EQ(peer.identity.connection, Connection::kTcp);
  EXPECT_EQ(peer.identity.user, ClientIdentity::kNoUser);
  EXPECT_EQ(peer.identity.process, ClientIdentity::kNoProcess);
  EXPECT_TRUE(peer.groups.empty());
  EXPECT_EQ(peer.name.substr(0, peer.name.rfind(':')), "127.0.0.1");
  EXPECT_EQ(peer.lasting, "127.0.0.1");
}

TEST(Peer, ThatHasManyGroupsHasAllOfThem) {
  const pid_t child = fork();
  if (child == 0) {
    std::vector<gid_t> groups;
    for (gid_t group = 1000; group < 1100; ++group) groups.push_back(group);
    if (geteuid() == 0 && setgroups(groups.size(), groups.data()) != 0) _exit(2);  // others keep those that they have
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) _exit(2);
    _exit(Peer(ends[0]).groups == OwnGroups() ? 0 : 1);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(Peer, OfAKnownAddressIsTheSame) {
  const ListeningSocket listener;
  const osa::Descriptor client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  daemon::SocketAddress address;
  ASSERT_EQ(getsockname(listener.GetDescriptor(), address.Get(), &address.size), 0);
  ASSERT_EQ(connect(client.Get(), address.Get(), address.size), 0);
  const Peer overTcp(client.Get(), address);
  EXPECT_EQ(overTcp.name, Peer(client.Get()).name);
  EXPECT_EQ(overTcp.lasting, "127.0.0.1");
  EXPECT_EQ(overTcp.identity.connection, Connection::kTcp);
}

TEST(Peer, OfAKnownUnixAddressIsTheSame) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const osa::Descriptor first(ends[0]);
  const osa::Descriptor second(ends[1]);
  daemon::SocketAddress address;
  ASSERT_EQ(getpeername(first.Get(), address.Get(), &address.size), 0);
  const Peer peer(first.Get(), address);
  EXPECT_EQ(peer.identity.connection, Connection::kUnix);
  EXPECT_EQ(peer.identity.process, getpid());
  EXPECT_EQ(peer.groups, OwnGroups());
  EXPECT_EQ(peer.name, Peer(first.Get()).name);
}

TEST(Peer, OfNoSocketIsNobody) {
  const Peer peer(-1);
  EXPECT_EQ(peer.identity.connection, Connection::kTcp);
  EXPECT_EQ(peer.name, "?");
}

}  // namespace tavix::test
