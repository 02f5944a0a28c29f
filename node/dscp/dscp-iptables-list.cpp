/** dscp-iptables-list: prints this node's rules; exit status 0 when the packet filter can be used, else 2. */
#include "DscpRules.h"

int main() {
  return Dscp::runCommand("dscp-iptables-list", [] {
    Dscp::requireFilter();
    for (const char* filter : Dscp::Filters) {
      for (const Dscp::Rule& rule : Dscp::listRules(filter)) {
        std::cout << rule.name << ' ' << filter;
        for (const std::string& word : rule.words) std::cout << ' ' << word;
        std::cout << '\n';
      }
    }
    return Dscp::Success;
  });
}
