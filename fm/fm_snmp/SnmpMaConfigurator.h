#ifndef VELA_FM_SNMP_MA_CONFIGURATOR_H
#define VELA_FM_SNMP_MA_CONFIGURATOR_H

#include <atomic>
#include <string>
#include <vector>

#include "AccessConfigurator.h"
#include "ConfigurationPass.h"
#include "OperationalStates.h"
#include "SnmpTypes.h"
#include "TargetRows.h"
#include "TlsConfigurator.h"
#include "UsmUserConfigurator.h"
#include "ViewConfigurator.h"

namespace VelaFmSnmp {

class MoConnector;
class SnmpConfigHandler;
class SnmpMaSession;

/**
 * Brings the master agent's tables (USM, VACM, targets, notifications, TLSTM) in line with a configuration by SNMP
 * SETs: it decides the order, and which target is concerned by what failed, while each group of tables has a class that
 * writes it and remembers what it wrote, so that a changed configuration costs the requests of what changed.
 *
 * A fault in one target is logged, leaves that target not operational and concerns no other one. A failure of the
 * session (SnmpSessionException, Vela::VelaException; a row that the agent refuses as inconsistent is one, too) leaves
 * reconfigure at once, and the next reconfigure deletes and writes everything anew.
 *
 * The adaptor thread only, except checkEngineBootCount.
 */
class SnmpMaConfigurator {
 public:
  SnmpMaConfigurator() = default;
  SnmpMaConfigurator(const SnmpMaConfigurator&) = delete;
  SnmpMaConfigurator& operator=(const SnmpMaConfigurator&) = delete;

  /** The static settings; not owned. Null: names resolve to either family, port octets are in network order. */
  void setConfigurationHandler(SnmpConfigHandler* handler) { _rows.setConfigurationHandler(handler); }

  /** The configuration applied last, or set. */
  const SnmpConfig& getCurrentConfig() const { return _current; }
  /** Makes a copy of a configuration the current one without touching the master agent. */
  void setCurrentConfig(const SnmpConfig& config);
  /** Whether the master agent is known to be in line with what was applied last. */
  bool isConfigured() const { return _configured; }
  /** The master agent may have been restarted: the next reconfigure deletes and writes every row. */
  void invalidate() { _configured = false; }
  /** Whether the master agent has to be started again, for the sake of a target that it could not reach when it was
      started; true once. */
  bool takeRestartWanted() { return _rows.getLateReceivers().takeRestartWanted(); }
  /** Forgets the current configuration and all that was written. */
  void clear();

  /**
   * Applies a configuration (which may be the current one) and makes a copy of it the current one, whose targets have
   * the established operational states, also when a failure leaves this call. Of a configuration that is not enabled no
   * target is written.
   */
  void reconfigure(SnmpMaSession& session, const SnmpConfig& config);

  /**
   * Writes (or removes) the rows that send notifications to one target; rows written under its name go before.
   * Throws Vela::VelaException when the target cannot be configured.
   */
  void configureTrapTarget(SnmpMaSession& session, const SnmpBaseTarget& target, bool add);

  /**
   * Compares the master agent's boot count with that of the last configuration. Any thread, with a session of its own.
   * @return true when it no longer matches: the master agent was restarted
   * @throws Vela::VelaException when it cannot be read
   */
  bool checkEngineBootCount(SnmpMaSession& session) const;
  /** snmpEngineBoots.0; throws Vela::VelaException when it cannot be read. */
  static int getEngineBoots(SnmpMaSession& session);
  /** snmpEngineID.0, raw octets; empty when it cannot be read. */
  static std::string getEngineId(SnmpMaSession& session);

  /** Sets the established states in the current configuration's targets and derives the service's own state: ENABLED
   *  when one of the unlocked targets is operational, or none is there. */
  void setOperationalStates();
  /** Writes the states of all targets and of the service to the model; a failed write is logged. While the master agent
   *  is not configured, or the service is not enabled, all of them are DISABLED. */
  void updateAllOperationalStates(const MoConnector& connector);
  /** Whether states could not be written to the model, and it is time to try again. */
  bool areStatesOverdue() const { return _states.areOverdue(); }

  /** Parses a literal IPv4 or IPv6 address; false when the text is none. Names are not resolved. */
  static bool parseTargetAddrUDP(Poco::Net::IPAddress& result, const std::string& host);
  /** As the function of the same name in HexMask.h. */
  static bool convertHexMask(unsigned char* buffer, int* length, int size, const char* text);

 private:
  ConfigurationPass beginPass(SnmpMaSession& session);
  void finish(SnmpConfig&& config, bool isConfigured);
  void reconfigureTargets(const ConfigurationPass& pass, const SnmpConfig& config);
  TargetFaults findFaults(const SnmpConfig::TargetMap& targets) const;
  /** The targets that the agent is to know. */
  std::vector<const SnmpBaseTarget*> findAdmitted(const SnmpConfig::TargetMap& targets,
                                                  const TargetFaults& faults) const;
  bool isConfigurable(const SnmpBaseTarget& target) const;
  void removeTarget(const ConfigurationPass& pass, const std::string& name);
  void applyTarget(const ConfigurationPass& pass, const Poco::AutoPtr<SnmpBaseTarget>& target,
                   const TargetFaults& faults);

  SnmpConfig _current; /**< its targets are copies of its own, with the established states */
  bool _configured = false;
  bool _knowsRows = false; /**< no row of ours stands in the master agent but those known here */
  std::atomic<int> _engineBoots{-1};

  ViewConfigurator _views;
  AccessConfigurator _access;
  UsmUserConfigurator _users;
  TlsConfigurator _tls;
  TargetRows _rows{_tls};
  OperationalStates _states;
  SnmpConfig::TargetMap _writtenTargets; /**< as of the last pass */
};

}  // namespace VelaFmSnmp
#endif
