#include "SnmpTypes.h"

#include <algorithm>
#include <set>

#include "LoggingWrapper.h"

namespace VelaFmSnmp {

namespace {

/** Compares two targets of one name. DTLS targets are equal then: their contents are compared by the digest. */
bool equalButForDigest(const SnmpBaseTarget& own, const SnmpBaseTarget& other) {
  const bool isTls = own.getSecurityModel() == SecurityModelTls && other.getSecurityModel() == SecurityModelTls;
  return isTls || own.equals(other);
}

std::vector<std::string> trapsessLines(const SnmpConfig& config, int securityModel) {
  std::vector<std::string> lines;
  for (const auto& [name, target] : config.getTargets()) {
    if (target.isNull() || target->getSecurityModel() != securityModel) continue;
    std::string line = target->trapsess(config.tlsOptions);
    if (!line.empty()) lines.push_back(std::move(line));
  }
  return lines;
}

/** Whether every entry of a map has an equal one in another map. */
template <class Map, class Equal>
bool allFoundIn(const Map& own, const Map& other, Equal equal) {
  return std::all_of(own.begin(), own.end(), [&](const auto& entry) {
    const auto found = other.find(entry.first);
    if (found == other.end() || entry.second.isNull() || found->second.isNull()) return false;
    return equal(*entry.second, *found->second);
  });
}

}  // namespace

// --- Views

bool SnmpBaseView::operator==(const SnmpBaseView& other) const {
  return name == other.name && community == other.community && readOids == other.readOids &&
         writeOids == other.writeOids && version() == other.version();
}

// --- SnmpConfig

void SnmpTlsOptions::clear() { *this = SnmpTlsOptions(); }

void SnmpConfig::clear() {
  targets.clear();
  views.clear();
  leftOut.clear();
  agentAddress.clear();
  snmpId.clear();
  tlsOptions.clear();
  engineId.clear();
}

bool SnmpConfig::operator==(const SnmpConfig& other) const {
  const auto equalViews = [](const SnmpBaseView& own, const SnmpBaseView& others) { return own == others; };
  return administrativeState == other.administrativeState && targets.size() == other.targets.size() &&
         views.size() == other.views.size() && agentAddress == other.agentAddress && snmpId == other.snmpId &&
         tlsOptions == other.tlsOptions && enableSourceCheckForV1V2C == other.enableSourceCheckForV1V2C &&
         engineId == other.engineId && allFoundIn(targets, other.targets, equalButForDigest) &&
         allFoundIn(views, other.views, equalViews);
}

std::size_t SnmpConfig::countReadableLater() const {
  const auto isReadableLater = [](const auto& entry) { return entry.second->mayBeReadLater; };
  return static_cast<std::size_t>(std::count_if(targets.begin(), targets.end(), isReadableLater));
}

bool SnmpConfig::allTargetsOperational() const {
  return std::all_of(targets.begin(), targets.end(), [this](const auto& entry) {
    const SnmpBaseTarget& target = *entry.second;
    if (!target.administrativeState) return true;
    if (target.getSecurityModel() == SecurityModelTls && !tlsOptions.isEnabled()) return true;
    return target.operational;
  });
}

std::vector<std::string> SnmpConfig::getV1AndV2communities() const {
  std::vector<std::string> communities;
  for (const auto& [name, target] : targets) {
    if (const std::string* community = target->getCommunity()) communities.push_back(*community);
  }
  return communities;
}

std::multimap<std::string, std::string> SnmpConfig::getV1V2communitiesAndAddrWithPrefixLength() const {
  std::set<std::pair<std::string, std::string>> sources;
  for (const auto& [name, target] : targets) {
    const std::string* community = target->getCommunity();
    if (community != nullptr && target->administrativeState) sources.emplace(*community, target->getSource());
  }
  return {sources.begin(), sources.end()};
}

std::vector<std::string> SnmpConfig::getInformTrapsessConfig() const { return trapsessLines(*this, SecurityModelUsm); }

std::vector<std::string> SnmpConfig::getInformDtlsTrapsessConfig() const {
  if (tlsOptions.isEnabled()) return trapsessLines(*this, SecurityModelTls);
  VELA_LOG(Vela::LogInfo, "SNMP over DTLS is not enabled");
  return {};
}

}  // namespace VelaFmSnmp
