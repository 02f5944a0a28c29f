#ifndef VELA_FM_SNMP_SNMP_DSCP_RULE_HANDLER_H
#define VELA_FM_SNMP_SNMP_DSCP_RULE_HANDLER_H

#include <Poco/AutoPtr.h>

#include <string>
#include <utility>
#include <vector>

#include "AddressResolver.h"
#include "IpTablesRule.h"
#include "ScriptWrapper.h"
#include "SnmpTypes.h"

namespace VelaFmSnmp {

/** Address of a target of a configuration. Throws Vela::VelaException when there is no target. */
std::string getAddress(const std::pair<const std::string, Poco::AutoPtr<SnmpBaseTarget>>& target);
/** Port of a target of a configuration, decimal. Throws Vela::VelaException when there is no target. */
std::string getPort(const std::pair<const std::string, Poco::AutoPtr<SnmpBaseTarget>>& target);

/**
 * Keeps the node's packet-marking rules in step with the configuration: one for what the agent answers (traffic class
 * "OamCM"), one for the notifications to the targets ("OamFM"). Runs the node's commands, four seconds at most each. No
 * failure leaves this class; it is logged and the rule stays as it was. The adaptor thread only.
 */
class SnmpDscpRuleHandler {
 public:
  using Arguments = std::vector<std::string>;

  /** Looks whether the node has the commands, which stand in `commandDirectory` when they are run through sudo. */
  explicit SnmpDscpRuleHandler(const std::string& commandDirectory = "/usr/sbin/");
  virtual ~SnmpDscpRuleHandler() = default;
  SnmpDscpRuleHandler(const SnmpDscpRuleHandler&) = delete;
  SnmpDscpRuleHandler& operator=(const SnmpDscpRuleHandler&) = delete;

  /** Lets another thread end a running command. The object outlives this one; null for none. */
  void setCancellation(const Vela::ScriptCancellation* cancellation);

  /** True when packet marking is switched on on this node. */
  virtual bool isDscpEnabled() const;

  /**
   * Adds or changes the rule; removes it when the configuration switches it off or leaves nothing to mark. What a rule
   * cannot hold (a port that is none, an address that is none, a name without an address) is logged and left out.
   * Names are waited for half a second, all together.
   */
  virtual void setCmRule(const SnmpConfig& config) const;
  virtual void setFmRule(const SnmpConfig& config) const;
  /** Whether the last rule for notifications lacks a target whose name had no address then. */
  virtual bool isNameMissing() const { return _isNameMissing; }
  virtual void removeCmRule() const;
  virtual void removeFmRule() const;

  /** Appends the rule, as one argument of options in words and blanks. */
  static void addOptions(Arguments& arguments, const Vela::IpTablesRule& rule);

 private:
  bool isUsable() const;
  bool hasEffect(std::string& reason) const;
  std::string addressOf(const std::string& name, const SnmpBaseTarget& target) const;
  int probe(const std::string& commandDirectory);
  int run(const Vela::ScriptWrapper& command, Arguments arguments, std::string& output) const;
  void removeRule(const Arguments& arguments) const;
  void addOrModifyRule(Arguments arguments) const;

  bool _apiAvailable = false;
  std::string _whyUnavailable;
  mutable std::string _toldReason; /**< why packets are not marked, as last logged */
  mutable bool _isNameMissing = false;
  mutable AddressResolver _resolver;
  bool _useSudo = false;
  Vela::ScriptWrapper _add;
  Vela::ScriptWrapper _list;
  Vela::ScriptWrapper _updateTuple;
  Vela::ScriptWrapper _remove;
  Vela::ScriptWrapper _enabled;
  Vela::ScriptWrapper _sudo;
};

}  // namespace VelaFmSnmp
#endif
