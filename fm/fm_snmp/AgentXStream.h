#ifndef VELA_FM_SNMP_AGENTX_STREAM_H
#define VELA_FM_SNMP_AGENTX_STREAM_H

// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <cstddef>
#include <cstdint>
#include <unordered_set>
#include <utility>
#include <vector>

namespace VelaFmSnmp {

/**
 * The octets of an AgentX connection (RFC 2741, 6.1), between the socket and the agent library. A message over 64 KiB
 * is dropped by the library at either end without a word, and the one who waits for an answer then closes the
 * connection. So such a request of the master agent, and such an answer to it, become the error "tooBig". The answers
 * to the adaptor's own requests are taken out here, because they echo the whole request, which the library would
 * decode. The adaptor thread only.
 */
class AgentXStream {
 public:
  /** The longest message that the library decodes, in octets. */
  static constexpr std::size_t maxMessage = 65536;

  struct Response {
    std::uint32_t request;
    int error; /**< RFC 2741, 6.2.16; 0: none */
  };

  AgentXStream() = default;
  ~AgentXStream() { detach(); }
  AgentXStream(const AgentXStream&) = delete;
  AgentXStream& operator=(const AgentXStream&) = delete;

  /** From now on the library reads and writes through this object, which no other may do at the same time. The
      transport stays the library's. Forgets what an earlier connection left. */
  void attach(netsnmp_transport& transport);
  /** Touches no transport any more; what takeResponses has to give stays. */
  void detach();

  /** Sends a message whose response is kept for takeResponses. False when the connection is closed. */
  bool request(std::uint32_t id, const unsigned char* message, std::size_t length);
  /** The responses that were read since the last call, in the order of their arrival. */
  std::vector<Response> takeResponses() { return std::exchange(_responses, {}); }
  bool isAwaitingResponse() const { return !_awaited.empty(); }
  /** Whether octets, or the end of the connection, wait to be read. */
  bool hasUnread() const;

 private:
  static constexpr std::size_t headerLength = 20;
  /** Of a response, up to its error. */
  static constexpr std::size_t responseLength = headerLength + 8;

  static int onReceive(netsnmp_transport* transport, void* buffer, int size, void** opaque, int* opaqueLength);
  static int onSend(netsnmp_transport* transport, const void* message, int length, void** opaque, int* opaqueLength);

  /** Reads into a buffer; yields how many octets are the library's, which may be none, or what recv does. */
  int receive(unsigned char* buffer, std::size_t size);
  /** Moves the library's octets to the buffer's beginning, keeps an incomplete header, and yields their number. */
  std::size_t filter(unsigned char* buffer, std::size_t length);
  void beginMessage(const unsigned char* message);
  bool sendAll(const unsigned char* message, std::size_t length) const;
  bool sendTooBig(const unsigned char* header) const;

  int _socket = -1;
  std::size_t _passing = 0;  /**< octets of the present message that are still the library's */
  std::size_t _skipping = 0; /**< octets of the present message that are still to be dropped */
  std::vector<unsigned char> _incomplete;
  std::unordered_set<std::uint32_t> _awaited;
  std::vector<Response> _responses;
};

}  // namespace VelaFmSnmp
#endif
