#ifndef VELA_FM_SNMP_TARGET_DIFF_H
#define VELA_FM_SNMP_TARGET_DIFF_H

#include <set>
#include <string>
#include <vector>

#include "SnmpTypes.h"

namespace VelaFmSnmp {

/** What changed between two configurations, by name, each list in the order of the names. */
struct ConfigurationDiff {
  std::vector<std::string> removed;
  std::vector<std::string> added;
  std::vector<std::string> changed; /**< to be written again, be it by force */

  bool isEmpty() const { return removed.empty() && added.empty() && changed.empty(); }
};

/** Whether two targets are configured alike, by the fields of their version and by their security model. */
bool equalTarget(const SnmpBaseTarget& left, const SnmpBaseTarget& right);

/** Compares targets. One that is not operational although it should be counts as changed; `force`: every one does.
 *  @param operational  names of the old targets that work */
ConfigurationDiff calcDiffTargets(const SnmpConfig::TargetMap& oldTargets, const SnmpConfig::TargetMap& newTargets,
                                  const std::set<std::string>& operational, bool force);
/** Compares view objects; `force`: every one counts as changed. */
ConfigurationDiff calcDiffViews(const SnmpConfig::ViewMap& oldViews, const SnmpConfig::ViewMap& newViews, bool force);

/** Whether a change cannot be applied to a running master agent by requests alone: of what the agent only reads from
 * its configuration when it starts. */
bool isMasterAgentRestartNeeded(const SnmpConfig& current, const SnmpConfig& next);

}  // namespace VelaFmSnmp
#endif
