#ifndef VELA_FM_SNMP_AGENTX_SUB_AGENT_H
#define VELA_FM_SNMP_AGENTX_SUB_AGENT_H

#include <net-snmp/library/large_fd_set.h>
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <sys/time.h>

#include <functional>
#include <string>
#include <utility>

namespace VelaFmSnmp {

/**
 * The agent library as an AgentX sub-agent (RFC 2741): the one connection to the master agent, with the library's own
 * retrying and its waiting at close taken away, since the adaptor decides when to attach. The library keeps its state
 * in the process, so there is one object that is not a stand-in. The adaptor thread only.
 */
class AgentXSubAgent {
 public:
  struct Settings {
    std::string socket;   /**< path of the master agent's AgentX socket */
    int pingInterval = 0; /**< seconds between pings; 0: 15, as the agent library has it */
    int timeout = 0;      /**< seconds; 0: the library's */
    int retries = 0;      /**< 0: the library's */
  };

  /** Notification PDUs of the present connection, counted from its beginning. */
  struct NotificationCounts {
    unsigned long sent = 0;
    unsigned long acknowledged = 0;
    unsigned long failed = 0; /**< could not be put on the connection */
  };

  AgentXSubAgent() = default;
  virtual ~AgentXSubAgent();
  AgentXSubAgent(const AgentXSubAgent&) = delete;
  AgentXSubAgent& operator=(const AgentXSubAgent&) = delete;

  /** Presets the library: sub-agent role, no configuration files, no persistent files, no MIB modules. Before anything
      else of the process uses the library. */
  virtual void presetLibrary();

  /**
   * Connects to the master agent and registers the MIB with it; closes what is open first. `registerHandlers` is called
   * the first time in the process. False when nobody answers; then nothing stays open, and the next call tries anew.
   * Waits for a master agent that does not answer, for the time-out times the retries per request.
   */
  virtual bool attach(const Settings& settings, const std::function<void()>& registerHandlers);
  /** Drops the connection without asking the master agent, which notices by itself. */
  virtual void close();
  /** Closes because the master agent does not answer. */
  void giveUp();
  /** Whether the last connection was given up; true once. */
  bool takeMute() { return std::exchange(_isMute, false); }
  /** False from the moment at which the master agent's end of the connection is seen closed. */
  virtual bool isAttached() const;

  /** Adds the descriptors to wait for, and lowers the time-out to what the library has next to do. */
  virtual void addDescriptors(int& count, netsnmp_large_fd_set& descriptors, timeval& timeout);
  /** Handles the ready ones of them. */
  virtual void read(netsnmp_large_fd_set& ready);
  /** Handles what the library's timers have due: time-outs of requests, then alarms. */
  virtual void runTimers();
  /** Answers requests that were waiting. */
  virtual void checkOutstandingRequests();
  /** Registers a one-shot agent alarm of 0 seconds, which runTimers calls. */
  virtual void callSoon(SNMPAlarmCallback* callback, void* argument);

  /** Runs what sends notifications. They are sent once and never again by the library, whatever the retries. */
  virtual void send(const std::function<void()>& sending);
  virtual NotificationCounts getNotificationCounts() const;

 private:
  static bool initLibrary(const Settings& settings);
  static void applySettings(const Settings& settings);
  bool open();
  void startPings();
  void ping();

  int _pingInterval = 0;
  unsigned int _pingAlarm = 0;
  bool _isMute = false;
};

}  // namespace VelaFmSnmp
#endif
