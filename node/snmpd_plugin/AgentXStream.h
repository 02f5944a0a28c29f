#ifndef SNMPD_PLUGIN_AGENTX_STREAM_H
#define SNMPD_PLUGIN_AGENTX_STREAM_H

#include <cstddef>
#include <string>
#include <string_view>

namespace SnmpdPlugin {

/**
 * What comes from a sub-agent, freed of responses that are longer than snmpd can read. snmpd drops such a response
 * without a word, waits until the request's time is over, and then closes the connection. In its place comes an error
 * tooBig, with the name of the first variable binding where there is one (RFC 2741, 6.2.16).
 */
class AgentXStream {
 public:
  /** The longest message that snmpd reads. */
  static constexpr std::size_t MaxMessage = 65536;
  /** How many octets less than its buffer has room for may be read into it before filter(). */
  static constexpr std::size_t Reserve = 20 + 8 + 4 + 4 + 4 * 128;

  /** Replaces what stands in a buffer by what is to be read in its place; yields its length, which can be 0. */
  std::size_t filter(char* buffer, std::size_t length);

 private:
  std::string _held;         /**< the begin of a message that cannot be judged yet */
  std::size_t _passing = 0;  /**< octets of a message that go through */
  std::size_t _dropping = 0; /**< octets of a message that do not */
};

}  // namespace SnmpdPlugin
#endif
