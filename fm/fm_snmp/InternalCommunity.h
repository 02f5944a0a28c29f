#ifndef VELA_FM_SNMP_INTERNAL_COMMUNITY_H
#define VELA_FM_SNMP_INTERNAL_COMMUNITY_H

#include <cstddef>
#include <string>

namespace VelaFmSnmp {

class SnmpMaSession;

/**
 * What tells a notification that the master agent sent to the adaptor's own target from a look-alike, which every local
 * user could send there: a random community, made once, which only the agent's plugin learns. The adaptor thread's own.
 */
class InternalCommunity {
 public:
  InternalCommunity();

  /**
   * Hands the community to the agent; to be done before the target's rows are written. An agent that does not take it
   * (one without the plugin) sends the security name instead. Throws what the session throws.
   */
  void agreeOn(const SnmpMaSession& session);

  /** Whether a datagram carries the community. Others are counted, and told once a minute. */
  bool isIn(const unsigned char* datagram, std::size_t length);

 private:
  void tellStrangers();

  const std::string _random;
  std::string _expected;
  unsigned int _strangers = 0;
  unsigned long long _lastTold = 0;
};

}  // namespace VelaFmSnmp
#endif
