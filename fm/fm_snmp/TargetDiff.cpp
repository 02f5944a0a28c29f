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
const char* reasonToWrite(const SnmpBaseTarget& old, const SnmpBaseTarget& next, bool force) {
  if (!equalTarget(old, next)) {
    return differsInAdminStateOnly(old, next) ? "not changed, but adminState changed" : "changed";
  }
  if (force) return "not changed, but forcing reconfiguration";
  if (next.administrativeState && !old.operational)
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

}  // namespace

bool equalTarget(const SnmpBaseTarget& left, const SnmpBaseTarget& right) { return left.equals(right); }

ConfigurationDiff calcDiffTargets(const SnmpConfig::TargetMap& oldTargets, const SnmpConfig::TargetMap& newTargets,
                                  bool force) {
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
        const char* reason = reasonToWrite(old, next, force);
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

}  // namespace VelaFmSnmp
