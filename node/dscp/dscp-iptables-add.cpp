/** dscp-iptables-add NAME CLASS OPTIONS...: adds a rule. Exit status 1 when there is one of that name, 2 on failure. */
#include "DscpRules.h"

int main(int argc, char** argv) {
  return Dscp::runCommand("dscp-iptables-add", [&]() -> int {
    if (argc < 4) throw std::runtime_error("usage: dscp-iptables-add NAME CLASS OPTIONS...");
    const std::string name = argv[1];
    Dscp::requireName(name);
    Dscp::codePoint(argv[2]);  // refused before anything is done
    const Dscp::Match match = Dscp::MatchParser().parse({argv + 3, argv + argc});
    Dscp::requireFilter();
    for (const char* filter : Dscp::Filters) {
      if (Dscp::rulesNamed(filter, name).empty()) continue;
      std::cerr << "dscp-iptables-add: there is a rule '" << name << "'\n";
      return Dscp::RuleExists;
    }
    for (const char* filter : Dscp::Filters) Dscp::replaceRules(filter, {}, name, argv[2], match);
    return Dscp::Success;
  });
}
