#ifndef SNMPD_PLUGIN_ENGINE_DISCOVERY_H
#define SNMPD_PLUGIN_ENGINE_DISCOVERY_H

#include <net-snmp/net-snmp-config.h>
// The order of net-snmp's headers matters.
#include <net-snmp/net-snmp-includes.h>

#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace SnmpdPlugin {

/**
 * Finds the engine ids of SNMPv3 inform receivers (RFC 3414, 4) while snmpd goes on serving everybody else. The library
 * itself waits for the answer, with the whole agent mute meanwhile, whenever a session is opened or used towards a
 * receiver whose engine id is not known; a receiver that is down then stops the agent.
 *
 * Instead, a probe is sent on the session and its answer handled as it arrives. Until then an inform is kept for as
 * long as its own retries would have lasted, and sent when the receiver has answered. A receiver that stops
 * acknowledging is probed too: it may have come back as another engine.
 *
 * One object, on snmpd's thread.
 */
class EngineDiscovery {
 public:
  /** Takes the place of the library's discovery. Call once, before the first session towards a receiver is opened. */
  static void install();

 private:
  using Clock = std::chrono::steady_clock;

  struct PduDeleter {
    void operator()(netsnmp_pdu* pdu) const { snmp_free_pdu(pdu); }
  };
  using PduPtr = std::unique_ptr<netsnmp_pdu, PduDeleter>;

  struct WaitingInform {
    PduPtr pdu;
    Clock::time_point deadline;
  };

  /** A session whose engine id this object looks after. */
  struct Receiver {
    void* handle = nullptr; /**< the session in the library's single-session interface */
    bool isProbing = false; /**< a probe is under way */
    bool isSuspect = false; /**< known, but an inform has failed since its last answer */
    bool isSilent = false;  /**< has been reported as not answering */
    long failuresSeen = 0;
    std::deque<WaitingInform> waiting;

    /** Who it is, whatever session leads there: the remote address as the transport keeps it, and the user. Empty:
     * unknown. */
    std::string identity(const netsnmp_session* session) const;
  };

  static EngineDiscovery& instance();

  static int onProbeWanted(session_list* handle, netsnmp_session* session);
  static int onSessionClose(netsnmp_session* session);
  static int onProbeResult(int operation, netsnmp_session* session, int requestId, netsnmp_pdu* pdu, void*);
  static int onNotificationBegin(int, int, void* pdu, void*);
  static int onNotificationEnd(int, int, void*, void*);
  static void onTick(unsigned, void*);

  int findEngine(void* handle);
  void sendProbe(netsnmp_session* session, Receiver& receiver);
  void keepCurrentInform(const netsnmp_session* session, Receiver& receiver);
  void engineFound(netsnmp_session* session, Receiver& receiver, const netsnmp_pdu* report);
  static void reportSilence(Receiver& receiver);
  void sendWaiting(netsnmp_session* session, Receiver& receiver);
  void sessionClosed(netsnmp_session* session);
  void tick();
  void muteLog();
  void unmuteLog();

  std::unordered_map<netsnmp_session*, Receiver> _receivers;
  /** Informs whose session was closed before its engine was found, by the receiver's identity. */
  std::unordered_map<std::string, std::deque<WaitingInform>> _orphans;
  netsnmp_pdu* _notification = nullptr; /**< the one that snmpd is distributing; not owned */
  std::vector<netsnmp_log_handler*> _mutedHandlers;
  netsnmp_log_handler* _nullHandler = nullptr; /**< the library's; registered when first needed */
  SecmodSessionCallback* _nextSessionClose = nullptr;
};

}  // namespace SnmpdPlugin
#endif
