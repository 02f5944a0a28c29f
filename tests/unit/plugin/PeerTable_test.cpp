#include "PeerTable.h"

#include <gtest/gtest.h>

using namespace SnmpdPlugin;

namespace {

struct Peer {
  netsnmp_indexed_addr_pair addresses = {};
  std::chrono::steady_clock::time_point lastUse;
};

Peer from(unsigned source, unsigned short port) {
  Peer peer;
  peer.addresses.remote_addr.sin.sin_family = AF_INET;
  peer.addresses.remote_addr.sin.sin_addr.s_addr = htonl(0x7f000000U + source);
  peer.addresses.remote_addr.sin.sin_port = htons(port);
  peer.lastUse = std::chrono::steady_clock::now();
  return peer;
}

}  // namespace

TEST(PeerTable, ACrowdMakesRoomForWhoHasLessHoweverBusyItIs) {
  PeerTable<Peer> table(6, 3, std::chrono::hours(1));
  for (unsigned short port = 1; port <= 3; ++port) {
    EXPECT_NE(table.insert(from(1, port)), nullptr);
    EXPECT_NE(table.insert(from(2, port)), nullptr);
  }
  EXPECT_EQ(table.insert(from(1, 4)), nullptr) << "a source that is full displaces its own only, and these are in use";
  EXPECT_NE(table.insert(from(3, 1)), nullptr) << "a source that has nothing gets in";
  EXPECT_NE(table.insert(from(3, 2)), nullptr);
  EXPECT_EQ(table.insert(from(3, 3)), nullptr) << "nobody has more than it by now";
  std::size_t count = 0;
  table.forEach([&count](const Peer&) { ++count; });
  EXPECT_EQ(count, 6U);
}
