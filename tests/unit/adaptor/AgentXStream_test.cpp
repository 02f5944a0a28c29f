#include "AgentXStream.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace {

using namespace VelaFmSnmp;

constexpr unsigned char Get = 5;
constexpr unsigned char Notify = 12;
constexpr unsigned char Response = 18;
constexpr std::size_t TooLong = AgentXStream::maxMessage + 1;

/** A message of AgentX: a header and so much of payload. Packet and error are of the header's byte order. */
std::string message(unsigned char type, std::uint32_t packet, std::size_t length, bool isNetworkOrder,
                    std::uint16_t error = 0) {
  std::string octets(length, 'p');
  octets[0] = 1;
  octets[1] = static_cast<char>(type);
  octets[2] = isNetworkOrder ? 0x10 : 0;
  auto payload = static_cast<std::uint32_t>(length - 20);
  if (isNetworkOrder) {
    packet = htonl(packet);
    payload = htonl(payload);
    error = htons(error);
  }
  std::memcpy(octets.data() + 12, &packet, sizeof packet);
  std::memcpy(octets.data() + 16, &payload, sizeof payload);
  if (type == Response) std::memcpy(octets.data() + 24, &error, sizeof error);
  return octets;
}

/** The stream as the library uses it, and the master agent's end of the connection. */
class AgentXStreamTest : public testing::Test {
 protected:
  AgentXStreamTest() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const int size = 1 << 20;
    for (const int end : ends) setsockopt(end, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    transport.sock = ends[0];
    master = ends[1];
    stream.attach(transport);
  }
  ~AgentXStreamTest() override {
    close(transport.sock);
    if (master >= 0) close(master);
  }

  void fromMaster(const std::string& octets) const {
    ASSERT_EQ(send(master, octets.data(), octets.size(), 0), static_cast<ssize_t>(octets.size()));
  }
  /** What the library reads, at most so much at a time, until nothing is left. */
  std::string read(int size = 70000) {
    std::string all;
    std::string buffer(static_cast<std::size_t>(size), '\0');
    while (stream.hasUnread()) {
      transport.flags = 0;
      const int length = transport.f_recv(&transport, buffer.data(), size, nullptr, nullptr);
      EXPECT_EQ(transport.flags != 0, length == 0) << "nothing read is not the end";
      if (length < 0) break;
      all.append(buffer, 0, static_cast<std::size_t>(length));
    }
    return all;
  }
  std::string atMaster() const {
    std::string buffer(200000, '\0');
    const ssize_t length = recv(master, buffer.data(), buffer.size(), MSG_DONTWAIT);
    buffer.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return buffer;
  }
  static std::string tooBig(std::uint32_t packet, bool isNetworkOrder) {
    std::string octets = message(Response, packet, 28, isNetworkOrder, 1);
    const std::uint16_t index = isNetworkOrder ? htons(1) : 1;
    std::memcpy(octets.data() + 26, &index, sizeof index);
    return octets;
  }
  /** Without what a response may hold besides: the session's and the transaction's ids, and the time. */
  static std::string plain(std::string octets) {
    if (octets.size() < 28) return octets;
    octets.replace(3, 9, 9, '-');
    return octets.replace(20, 4, 4, '-');
  }

  netsnmp_transport transport = {};
  int master = -1;
  AgentXStream stream;
};

TEST_F(AgentXStreamTest, ResponsesAreTakenOutAndAllElseIsTheLibrarysHoweverItIsCut) {
  for (const bool isNetworkOrder : {false, true}) {
    for (const int size : {29, 64, 70000}) {
      for (const std::uint32_t id : {7U, 8U, 9U}) ASSERT_TRUE(stream.request(id, nullptr, 0));
      const std::string others = message(Get, 7, 100, isNetworkOrder) + message(Response, 6, 60, isNetworkOrder) +
                                 message(Get, 8, 20, isNetworkOrder);
      fromMaster(message(Response, 7, 1200, isNetworkOrder) + others.substr(0, 130));
      fromMaster(others.substr(130) + message(Response, 9, 28, isNetworkOrder, 268));
      EXPECT_EQ(read(size), others) << size;
      const std::vector<AgentXStream::Response> responses = stream.takeResponses();
      ASSERT_EQ(responses.size(), 2U);
      EXPECT_EQ(responses[0].request, 7U);
      EXPECT_EQ(responses[0].error, 0);
      EXPECT_EQ(responses[1].request, 9U);
      EXPECT_EQ(responses[1].error, 268);
      EXPECT_TRUE(stream.isAwaitingResponse());
      stream.attach(transport);
    }
  }
}

TEST_F(AgentXStreamTest, WhatIsTooLongBecomesAnError) {
  for (const bool isNetworkOrder : {false, true}) {
    const std::string next = message(Get, 2, 40, isNetworkOrder);
    fromMaster(message(Get, 1, TooLong, isNetworkOrder) + next);
    EXPECT_EQ(read(), next);
    EXPECT_EQ(plain(atMaster()), plain(tooBig(1, isNetworkOrder)));

    const std::string longest = message(Get, 1, TooLong - 1, isNetworkOrder);
    fromMaster(longest);
    EXPECT_EQ(read(), longest);

    const std::string answer = message(Response, 3, TooLong, isNetworkOrder);
    EXPECT_EQ(transport.f_send(&transport, answer.data(), static_cast<int>(answer.size()), nullptr, nullptr),
              static_cast<int>(answer.size()));
    EXPECT_EQ(plain(atMaster()), plain(tooBig(3, isNetworkOrder)));
    EXPECT_EQ(transport.f_send(&transport, longest.data(), static_cast<int>(longest.size()), nullptr, nullptr),
              static_cast<int>(longest.size()));
    EXPECT_EQ(atMaster(), longest);
  }
}

TEST_F(AgentXStreamTest, TheEndOfTheConnectionIsToldAndNothingIsSentAfterIt) {
  const std::string notification = message(Notify, 1, 100, false);
  close(std::exchange(master, -1));
  const auto* const octets = reinterpret_cast<const unsigned char*>(notification.data());
  EXPECT_FALSE(stream.request(1, octets, notification.size())) << "and no signal ends the process";
  EXPECT_TRUE(stream.hasUnread());
  char buffer[100];
  EXPECT_EQ(transport.f_recv(&transport, buffer, sizeof buffer, nullptr, nullptr), 0);
  EXPECT_EQ(transport.flags, 0U);
  EXPECT_FALSE(stream.hasUnread());
  stream.detach();
  EXPECT_LT(transport.f_send(&transport, buffer, sizeof buffer, nullptr, nullptr), 0);
}

}  // namespace
