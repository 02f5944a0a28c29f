#ifndef VELA_FM_SNMP_ADAPTOR_LOOP_H
#define VELA_FM_SNMP_ADAPTOR_LOOP_H

// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/library/large_fd_set.h>

#include <functional>
#include <vector>

#include "AgentXSubAgent.h"

namespace VelaFmSnmp {

/**
 * What the adaptor thread does all the time: it waits for descriptors, serves those that are readable, and steps the
 * adaptor's states when that is due, also while descriptors are readable without a pause. The adaptor thread only, but
 * for wake.
 */
class AdaptorLoop {
 public:
  /** Takes a step of the states; yields the milliseconds until the next one. */
  using Step = std::function<int()>;

  /** Throws Vela::VelaException when the descriptor for wake cannot be made. */
  explicit AdaptorLoop(Step step);
  ~AdaptorLoop();
  AdaptorLoop(const AdaptorLoop&) = delete;
  AdaptorLoop& operator=(const AdaptorLoop&) = delete;

  /** Adds a descriptor (none while the function yields less than 1) and what is done when it is readable. They are
      served in the order in which they were added, and before the sub-agent. */
  void serve(std::function<int()> descriptor, std::function<void()> onReadable);

  /** Before the first pass of a run: the first step is due at once, and earlier calls of wake are forgotten. */
  void begin();
  /** Waits, serves and steps once. While stopping it does not wait, and the agent library's timers rest. False when
      waiting failed, which is logged; nothing else was done then. */
  bool pass(AgentXSubAgent& subAgent, bool isStopping);
  /** Makes the next step due at once. */
  void stepSoon() { _stepTimeout = 0; }
  /** Ends the wait of this pass, or of the next. Any thread. */
  void wake();
  /** Readable from wake to begin. */
  int getWakeFD() const { return _wakeFD; }

 private:
  /** A set of descriptors of any number, and the count that select wants. */
  class Descriptors {
   public:
    Descriptors() { netsnmp_large_fd_set_init(&set, FD_SETSIZE); }
    ~Descriptors() { netsnmp_large_fd_set_cleanup(&set); }
    Descriptors(const Descriptors&) = delete;
    Descriptors& operator=(const Descriptors&) = delete;

    void clear();
    void add(int descriptor);
    bool contains(int descriptor) { return descriptor > 0 && NETSNMP_LARGE_FD_ISSET(descriptor, &set); }

    netsnmp_large_fd_set set;
    int count = 0;
  };
  struct Source {
    std::function<int()> descriptor;
    std::function<void()> onReadable;
  };

  void collect(AgentXSubAgent& subAgent, timeval& timeout);
  bool isStepDue(bool isStopping) const;
  void handleSelectTimeout(AgentXSubAgent& subAgent, bool isStopping);

  const Step _step;
  std::vector<Source> _sources;
  Descriptors _descriptors;
  int _wakeFD;
  int _stepTimeout = 0; /**< milliseconds */
  unsigned long long _lastUpdate = 0;
};

}  // namespace VelaFmSnmp
#endif
