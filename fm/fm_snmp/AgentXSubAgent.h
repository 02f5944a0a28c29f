#ifndef VELA_FM_SNMP_AGENTX_SUB_AGENT_H
#define VELA_FM_SNMP_AGENTX_SUB_AGENT_H

#include <net-snmp/library/large_fd_set.h>
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <sys/time.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "AgentXStream.h"
#include "Varbinds.h"

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

  /** Tells a request to the master agent and its answer. */
  using Request = std::uint32_t;
  enum class Outcome {
    Sent,    /**< the request is on its way */
    TooLong, /**< nothing was sent: a message cannot carry so much */
    Closed   /**< the connection is, or just was, closed by the other end */
  };
  struct Sent {
    Outcome outcome = Outcome::Closed;
    Request request = 0;
    std::size_t octets = 0; /**< of the message */
  };
  struct Answer {
    Request request;
    int error; /**< RFC 2741, 6.2.16; 0: done as requested */
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
  /** Ends whatever waits for the master agent, and makes attach fail until resume. Any thread. */
  virtual void interrupt();
  virtual void resume();
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
  /** Sends a notification. It is sent once and never again. */
  virtual Sent notify(const Varbinds& varbinds);
  /** Asks for a sign of life. */
  virtual Sent ping();
  /** The answers that were read since the last call, in the order of their arrival; also after the connection was
      closed, up to the next attach. */
  virtual std::vector<Answer> takeAnswers() { return std::exchange(_answers, {}); }
  /** Whether something of the master agent waits to be read. */
  virtual bool hasUnread() const { return isAttached() && _stream.hasUnread(); }
  /** Milliseconds that the master agent is given for an answer, 0 while there is no connection. */
  virtual unsigned long long getAnswerTimeout() const;

 private:
  static bool initLibrary(const Settings& settings);
  static void applySettings(const Settings& settings);
  bool open();
  void adopt(netsnmp_session& session);
  void startPings();
  void sendPing();
  void checkPing();
  void takeResponses();
  Sent send(unsigned char type, netsnmp_variable_list* varbinds);

  struct Free {
    void operator()(unsigned char* memory) const { std::free(memory); }
  };

  AgentXStream _stream;
  std::vector<Answer> _answers;
  std::unique_ptr<unsigned char, Free> _message; /**< grown by the library, and kept for the next message */
  std::size_t _messageSize = 0;

  int _pingInterval = 0;
  unsigned int _pingAlarm = 0;
  std::optional<Request> _ping; /**< the sub-agent's own, not answered yet */
  std::chrono::steady_clock::time_point _pingSent;
  bool _isMute = false;
};

}  // namespace VelaFmSnmp
#endif
