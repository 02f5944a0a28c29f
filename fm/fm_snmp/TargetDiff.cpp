#include "TargetDiff.h"

#include <LoggingWrapper.h>

#include <Poco/AutoPtr.h>

namespace VelaFmSnmp {

namespace {

bool differsInAdminStateOnly(const SnmpBaseTarget& left, const SnmpBaseTarget& right) {
  if (left.administrativeState == right.administrativeState || left.getSecurityModel() != right.getSecurityModel())
    return false;
  Poco::AutoPtr<SnmpBaseTarget> aligned = left.clone();
  aligned->administrativeState = right.administrativeState;
  return equalTarget(*aligned, right);
}

/** What becomes of a target that both configurations have; null when it need not be written again. */
const char* reasonToWrite(const SnmpBaseTarget& old, const SnmpBaseTarget& next, bool wasOperational, bool force) {
  if (!equalTarget(old, next)) {
    return differsInAdminStateOnly(old, next) ? "not changed, but adminState changed" : "changed";
  }
  if (force) return "not changed, but forcing reconfiguration";
  if (next.administrativeState && !wasOperational)
    return "not changed, but operationalState is DISABLED, so try to reconfigure";
  return nullptr;
}

/** Walks two maps of the same order side by side. */
template <class Map, class OnRemoved, class OnAdded, class OnBoth>
void compareMaps(const Map& oldMap, const Map& newMap, OnRemoved&& onRemoved, OnAdded&& onAdded, OnBoth&& onBoth) {
  auto left = oldMap.begin();
  auto right = newMap.begin();
  while (left != oldMap.end() || right != newMap.end()) {
    if (right == newMap.end() || (left != oldMap.end() && left->first < right->first)) {
      onRemoved(left++->first);
    } else if (left == oldMap.end() || right->first < left->first) {
      onAdded(right++->first);
    } else {
      onBoth(right->first, *left->second, *right->second);
      ++left;
      ++right;
    }
  }
}

bool hasNewCommunity(const SnmpConfig& current, const SnmpConfig& next) {
  const std::vector<std::string> list = current.getV1AndV2communities();
  const std::set<std::string> known(list.begin(), list.end());
  for (const std::string& community : next.getV1AndV2communities()) {
    if (known.count(community) != 0) continue;
    VELA_TRACE("Community '%s' is not in the old config", community.c_str());
    return true;
  }
  return false;
}

bool hasNewSource(const SnmpConfig& current, const SnmpConfig& next) {
  const auto entries = current.getV1V2communitiesAndAddrWithPrefixLength();
  const std::set<std::pair<std::string, std::string>> known(entries.begin(), entries.end());
  for (const auto& entry : next.getV1V2communitiesAndAddrWithPrefixLength()) {
    if (known.count(entry) != 0) continue;
    VELA_TRACE("Address with networkprefixlength %s is not in the old config", entry.second.c_str());
    return true;
  }
  return false;
}

bool haveTlsOptionsChanged(const SnmpConfig::tlsOptions_t& current, const SnmpConfig::tlsOptions_t& next) {
  if (!current.isEnabled() && !next.isEnabled()) return false;
  return current.agentAddressDtls != next.agentAddressDtls || current.nodeCredential != next.nodeCredential ||
         current.trustCategories != next.trustCategories;
}

bool haveInformTargetsChanged(const SnmpConfig& current, const SnmpConfig& next) {
  if (current.getInformTrapsessConfig() != next.getInformTrapsessConfig()) {
    VELA_TRACE("target with inform transport method has changed - restart needed");
    return true;
  }
  if (current.getInformDtlsTrapsessConfig() != next.getInformDtlsTrapsessConfig()) {
    VELA_TRACE("dtls target with inform transport method has changed - restart needed");
    return true;
  }
  return false;
}

}  // namespace

bool equalTarget(const SnmpBaseTarget& left, const SnmpBaseTarget& right) { return left.equals(right); }

ConfigurationDiff calcDiffTargets(const SnmpConfig::TargetMap& oldTargets, const SnmpConfig::TargetMap& newTargets,
                                  const std::set<std::string>& operational, bool force) {
  ConfigurationDiff diff;
  compareMaps(
      oldTargets, newTargets,
      [&](const std::string& name) {
        VELA_LOG(Vela::LogInfo, "target %s erased", name.c_str());
        diff.removed.push_back(name);
      },
      [&](const std::string& name) {
        VELA_LOG(Vela::LogInfo, "target %s is new", name.c_str());
        diff.added.push_back(name);
      },
      [&](const std::string& name, const SnmpBaseTarget& old, const SnmpBaseTarget& next) {
        const char* reason = reasonToWrite(old, next, operational.count(name) != 0, force);
        if (reason) diff.changed.push_back(name);
        VELA_LOG(Vela::LogInfo, "target %s %s", name.c_str(), reason ? reason : "not changed");
      });
  return diff;
}

ConfigurationDiff calcDiffViews(const SnmpConfig::ViewMap& oldViews, const SnmpConfig::ViewMap& newViews, bool force) {
  ConfigurationDiff diff;
  compareMaps(
      oldViews, newViews,
      [&](const std::string& name) {
        VELA_LOG(Vela::LogInfo, "view %s erased", name.c_str());
        diff.removed.push_back(name);
      },
      [&](const std::string& name) {
        VELA_LOG(Vela::LogInfo, "view %s is new", name.c_str());
        diff.added.push_back(name);
      },
      [&](const std::string& name, const SnmpBaseView& old, const SnmpBaseView& next) {
        const bool isChanged = !(old == next);
        if (isChanged || force) diff.changed.push_back(name);
        const char* reason = isChanged ? "changed, removing old view and adding new"
                             : force   ? "not changed, but forcing reconfiguration"
                                       : "not changed";
        VELA_LOG(Vela::LogInfo, "view %s %s", name.c_str(), reason);
      });
  return diff;
}

bool isMasterAgentRestartNeeded(const SnmpConfig& current, const SnmpConfig& next) {
  return current.agentAddress != next.agentAddress || current.snmpId != next.snmpId ||
         haveTlsOptionsChanged(current.tlsOptions, next.tlsOptions) ||
         current.enableSourceCheckForV1V2C != next.enableSourceCheckForV1V2C || current.engineId != next.engineId ||
         hasNewCommunity(current, next) || (next.enableSourceCheckForV1V2C && hasNewSource(current, next)) ||
         haveInformTargetsChanged(current, next);
}

}  // namespace VelaFmSnmp
