/** dscp-iptables-update-tuple NAME OPTIONS...: gives a rule another match; its traffic class stays. 2 on failure. */
#include "DscpRules.h"

int main(int argc, char** argv) {
  return Dscp::runCommand("dscp-iptables-update-tuple", [&] {
    if (argc < 3) throw std::runtime_error("usage: dscp-iptables-update-tuple NAME OPTIONS...");
    const std::string name = argv[1];
    const Dscp::Match match = Dscp::MatchParser().parse({argv + 2, argv + argc});
    Dscp::requireFilter();
    std::map<const char*, std::vector<Dscp::Rule>> old;
    std::string trafficClass;
    for (const char* filter : Dscp::Filters) {
      old[filter] = Dscp::rulesNamed(filter, name);
      if (!old[filter].empty()) trafficClass = old[filter].front().trafficClass;
    }
    if (trafficClass.empty()) throw std::runtime_error("there is no rule '" + name + "'");
    for (const auto& [filter, rules] : old) Dscp::replaceRules(filter, rules, name, trafficClass, match);
    return Dscp::Success;
  });
}
