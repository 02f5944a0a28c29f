/**
 * dscp-iptables-remove -r PATTERN: removes the rules whose name matches the regular expression; single quotes around
 * the pattern are taken off. dscp-iptables-remove NAME removes the rule of that name. Exit status 2 on failure.
 */
#include "DscpRules.h"

int main(int argc, char** argv) {
  return Dscp::runCommand("dscp-iptables-remove", [&] {
    const bool isPattern = argc == 3 && std::string(argv[1]) == "-r";
    if (argc != 2 && !isPattern) throw std::runtime_error("usage: dscp-iptables-remove -r PATTERN | NAME");
    std::string text = argv[argc - 1];
    if (text.size() >= 2 && text.front() == '\'' && text.back() == '\'') text = text.substr(1, text.size() - 2);
    const std::regex pattern(isPattern ? text : "");
    Dscp::requireFilter();
    for (const char* filter : Dscp::Filters) {
      std::vector<Dscp::Rule> rules = Dscp::listRules(filter);
      std::erase_if(rules, [&](const Dscp::Rule& rule) {
        return isPattern ? !std::regex_search(rule.name, pattern) : rule.name != text;
      });
      Dscp::removeRules(filter, rules);
    }
    return Dscp::Success;
  });
}
