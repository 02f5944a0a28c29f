/**
 * What the packet-marking commands share: rules in the chain OUTPUT of the packet filter's table "mangle" that set the
 * DSCP of what this node sends (RFC 2474).
 *
 * A node marks packets only when its folder (VELA_NODE_DIR) holds the file "dscp.conf". The code points of the two
 * traffic classes, 0 to 63, are those of the model's objects "DiffServCategory=OamCM" and "DiffServCategory=OamFM", and
 * 16 (CS2) where there is none; the file's lines "OamCM=VALUE" and "OamFM=VALUE" take their place. Each rule carries a
 * comment with the node, the rule's name and its traffic class, so that nodes side by side leave each other's rules
 * alone.
 */
#ifndef DSCP_DSCP_RULES_H
#define DSCP_DSCP_RULES_H

#include <Poco/AutoPtr.h>
#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Document.h>
#include <Poco/DOM/Element.h>
#include <Poco/DOM/NodeList.h>
#include <Poco/Exception.h>
#include <Poco/Pipe.h>
#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <Poco/SHA1Engine.h>
#include <Poco/StreamCopier.h>
#include <Poco/String.h>
#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Dscp {

using Words = std::vector<std::string>;

enum ExitStatus { Success = 0, RuleExists = 1, NotEnabled = 1, Failed = 2 };

constexpr const char* DefaultCodePoint = "16";
constexpr unsigned MaxCodePoint = 63;
constexpr const char* Chain = "OUTPUT";
/** The packet filters by address family: IPv4 and IPv6. */
constexpr const char* Filters[] = {"iptables", "ip6tables"};

struct Result {
  int status;
  std::string output;
};

/** Lists the table "mangle" of a packet filter; no shell between. */
inline Result runFilter(const char* filter, Words arguments) {
  arguments.insert(arguments.begin(), {"-w", "3", "-t", "mangle"});
  Poco::Pipe out;
  const Poco::ProcessHandle process = Poco::Process::launch(filter, arguments, nullptr, &out, &out);
  Poco::PipeInputStream in(out);
  Result result;
  Poco::StreamCopier::copyToString(in, result.output);
  result.status = process.wait();
  return result;
}

inline bool isAvailable(const char* filter) { return runFilter(filter, {"-S", Chain}).status == 0; }

inline void requireFilter() {
  if (!isAvailable(Filters[0]))
    throw std::runtime_error("packets cannot be marked: iptables is missing, or the privilege to use it");
}

/** Whether the node works as an ordinary user, with a command that gives it the privilege where it needs it. */
inline bool isUserMode() {
  const char* mode = std::getenv("VELA_USER_MODE");
  const char* command = std::getenv("SUDO_CMD");
  return mode != nullptr && std::string(mode) == "1" && command != nullptr && *command != '\0';
}

inline std::filesystem::path nodeFolder() {
  const char* folder = std::getenv("VELA_NODE_DIR");
  if (folder == nullptr || *folder == '\0') throw std::runtime_error("VELA_NODE_DIR is not set");
  return std::filesystem::weakly_canonical(folder);
}

inline std::filesystem::path configurationFile() { return nodeFolder() / "dscp.conf"; }
inline std::filesystem::path modelFile() { return nodeFolder() / "model.xml"; }

/** A text and the file that it comes from. */
struct Setting {
  std::string value;
  std::filesystem::path file;
};

/** The code point that the model gives a traffic class. */
inline Setting modelCodePoint(const std::string& trafficClass) {
  if (!std::filesystem::exists(modelFile())) return {DefaultCodePoint, modelFile()};
  const Poco::AutoPtr<Poco::XML::Document> model = Poco::XML::DOMParser().parse(modelFile().string());
  const Poco::AutoPtr<Poco::XML::NodeList> categories = model->getElementsByTagName("DiffServCategory");
  for (unsigned long i = 0; i < categories->length(); ++i) {
    const auto* category = static_cast<Poco::XML::Element*>(categories->item(i));
    if (category->getAttribute("id") != trafficClass) continue;
    const Poco::XML::Element* dscp = category->getChildElement("dscp");
    return {dscp == nullptr ? "0" : Poco::trim(dscp->innerText()), modelFile()};
  }
  return {DefaultCodePoint, modelFile()};
}

inline std::string codePoint(const std::string& trafficClass) {
  if (trafficClass != "OamCM" && trafficClass != "OamFM")
    throw std::runtime_error("unknown traffic class '" + trafficClass + "'");
  Setting setting = modelCodePoint(trafficClass);
  std::ifstream in(configurationFile());
  for (std::string line; std::getline(in, line);)
    if (line.rfind(trafficClass + "=", 0) == 0) setting = {line.substr(trafficClass.size() + 1), configurationFile()};
  const std::string& value = setting.value;
  const bool isNumber =
      !value.empty() && value.size() <= 2 && value.find_first_not_of("0123456789") == std::string::npos;
  if (!isNumber || std::stoul(value) > MaxCodePoint)
    throw std::runtime_error(setting.file.string() + ": " + trafficClass + " is no code point: '" + value + "'");
  return value;
}

/** What stands before a rule's name in its comment. */
inline std::string commentPrefix() {
  Poco::SHA1Engine engine;
  engine.update(nodeFolder().string());
  return "vela:" + Poco::DigestEngine::digestToHex(engine.digest()).substr(0, 12) + ":";
}

/** A rule as the packet filter lists it: the words behind "-A OUTPUT", and name and traffic class from its comment. */
struct Rule {
  std::string name;
  std::string trafficClass;
  Words words;
};

inline Words splitQuoted(const std::string& line) {
  Words words;
  std::istringstream in(line);
  for (std::string word; in >> std::quoted(word);) words.push_back(word);
  return words;
}

/** This node's rules in one packet filter. */
inline std::vector<Rule> listRules(const char* filter) {
  std::vector<Rule> rules;
  const std::string prefix = commentPrefix();
  std::istringstream in(runFilter(filter, {"-S", Chain}).output);
  for (std::string line; std::getline(in, line);) {
    Words words = splitQuoted(line);
    const auto comment = std::find(words.begin(), words.end(), "--comment");
    if (words.size() < 3 || words[0] != "-A" || comment == words.end() || comment + 1 == words.end()) continue;
    if ((comment + 1)->rfind(prefix, 0) != 0) continue;
    Rule rule;
    rule.name = (comment + 1)->substr(prefix.size());
    if (const size_t colon = rule.name.find(':'); colon != std::string::npos) {
      rule.trafficClass = rule.name.substr(colon + 1);
      rule.name.erase(colon);
    }
    rule.words.assign(words.begin() + 2, words.end());
    rules.push_back(std::move(rule));
  }
  return rules;
}

/** The match of a rule by packet filter; a filter without an entry gets no rule. */
using Match = std::map<std::string, Words>;

inline std::set<std::string> resolve(const std::string& host, int family) {
  addrinfo hints{};
  hints.ai_family = family;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return {};
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, &freeaddrinfo);
  std::set<std::string> addresses;
  for (; found != nullptr; found = found->ai_next) {
    char text[NI_MAXHOST];
    if (getnameinfo(found->ai_addr, found->ai_addrlen, text, sizeof(text), nullptr, 0, NI_NUMERICHOST) == 0)
      addresses.insert(text);
  }
  return addresses;
}

/** The part of a comma-separated address list that belongs to one family, names resolved. Empty: none does. */
inline std::string addressesOf(const std::string& list, int family) {
  std::string result;
  std::istringstream in(list);
  for (std::string entry; std::getline(in, entry, ',');) {
    const size_t slash = entry.find('/');
    const std::string host = entry.substr(0, slash);
    const std::string prefix = slash == std::string::npos ? "" : entry.substr(slash);
    if (prefix.find_first_not_of("/0123456789") != std::string::npos)
      throw std::runtime_error("bad prefix length in '" + entry + "'");
    for (const std::string& address : resolve(host, family))
      result.append(result.empty() ? "" : ",").append(address).append(prefix);
  }
  return result;
}

/**
 * Reads the options of a rule from the words and blanks they are made of. Only protocol, addresses and ports may be
 * given; everything else is refused, so that a value can never become another option of the packet filter.
 */
class MatchParser {
 public:
  Match parse(const Words& arguments) {
    std::string text;
    for (const std::string& argument : arguments) text.append(argument).append(" ");
    // "! -d10.0.0.1": a value may follow its option without a blank.
    _in.str(std::regex_replace(text, std::regex("(^| )(-[psd])([^ -])"), "$1$2 $3"));
    for (std::string word; _in >> word;) parseOption(word);
    if (_match.empty()) throw std::runtime_error("no address of the list can be resolved");
    return _match;
  }

 private:
  void parseOption(const std::string& option) {
    static const std::map<std::string, std::string> Ports = {
        {"--dport", "--dports"}, {"--dports", "--dports"}, {"--sport", "--sports"}, {"--sports", "--sports"}};
    if (option == "!") {
      _negation = {"!"};
    } else if (option == "--match" || option == "-m") {
      if (value(option) != "multiport") throw std::runtime_error("only the match 'multiport' is known");
      for (auto& [filter, words] : _match) words.insert(words.end(), {"-m", "multiport"});
    } else if (option == "-p") {
      add(option, value(option));
    } else if (option == "-s" || option == "-d") {
      addAddresses(option, value(option));
    } else if (const auto port = Ports.find(option); port != Ports.end()) {
      add(port->second, value(option));
    } else {
      throw std::runtime_error("unknown option '" + option + "'");
    }
  }

  std::string value(const std::string& option) {
    std::string word;
    if (!(_in >> word) || word.front() == '-') throw std::runtime_error("option " + option + " has no value");
    return word;
  }

  void append(Words& words, const std::string& option, const std::string& value) const {
    words.insert(words.end(), _negation.begin(), _negation.end());
    words.insert(words.end(), {option, value});
  }

  void add(const std::string& option, const std::string& value) {
    for (auto& [filter, words] : _match) append(words, option, value);
    _negation.clear();
  }

  void addAddresses(const std::string& option, const std::string& list) {
    const std::pair<const char*, int> families[] = {{Filters[0], AF_INET}, {Filters[1], AF_INET6}};
    for (const auto& [filter, family] : families) {
      const auto found = _match.find(filter);
      const std::string addresses = addressesOf(list, family);
      if (found == _match.end()) continue;
      // Without an address of this family nothing of it matches, or, negated, everything.
      if (!addresses.empty())
        append(found->second, option, addresses);
      else if (_negation.empty())
        _match.erase(found);
    }
    _negation.clear();
  }

  std::istringstream _in;
  Words _negation;
  Match _match{{Filters[0], {}}, {Filters[1], {}}};
};

/** Changes to the chain of one packet filter, made all at once or not at all, however many they are. */
class Changes {
 public:
  void add(const Words& words) { append("-A", words); }
  void remove(const std::vector<Rule>& rules) {
    for (const Rule& rule : rules) append("-D", rule.words);
  }
  void apply(const char* filter) const {
    if (_lines.empty()) return;
    Poco::Pipe in;
    Poco::Pipe out;
    const Poco::ProcessHandle process =
        Poco::Process::launch(std::string(filter) + "-restore", {"-w", "3", "--noflush"}, &in, &out, &out);
    Poco::PipeOutputStream input(in);
    input << "*mangle\n" << _lines << "COMMIT\n";
    input.close();
    Poco::PipeInputStream output(out);
    std::string reason;
    std::getline(output, reason);
    if (process.wait() != 0) throw std::runtime_error(std::string(filter) + " fails: " + reason);
  }

 private:
  void append(const char* operation, const Words& words) {
    _lines.append(operation).append(" ").append(Chain);
    for (const std::string& word : words) _lines.append(" ").append(word);
    _lines.append("\n");
  }

  std::string _lines;
};

/** A match for each of its addresses, as the filter would make them of a list that is not too long for it. */
inline std::vector<Words> perAddress(const Words& match) {
  std::vector<Words> matches = {{}};
  for (std::size_t i = 0; i < match.size(); ++i) {
    const bool isAddress = i > 0 && (match[i - 1] == "-s" || match[i - 1] == "-d") && (i < 2 || match[i - 2] != "!");
    std::vector<Words> extended;
    std::istringstream values(match[i]);
    for (std::string value; std::getline(values, value, isAddress ? ',' : '\n');) {
      for (Words words : matches) {
        words.push_back(value);
        extended.push_back(std::move(words));
      }
    }
    matches = std::move(extended);
  }
  return matches;
}

inline void removeRules(const char* filter, const std::vector<Rule>& rules) {
  Changes changes;
  changes.remove(rules);
  changes.apply(filter);
}

/** Puts rules in the place of old ones, which may be none. */
inline void replaceRules(const char* filter, const std::vector<Rule>& old, const std::string& name,
                         const std::string& trafficClass, const Match& match) {
  Changes changes;
  const auto found = match.find(filter);
  const bool isWanted = found != match.end() && (filter == Filters[0] || isAvailable(filter));
  if (isWanted) {
    const Words tail = {"-m", "comment", "--comment",  commentPrefix() + name + ":" + trafficClass,
                        "-j", "DSCP",    "--set-dscp", codePoint(trafficClass)};
    for (Words& rule : perAddress(found->second)) {
      rule.insert(rule.end(), tail.begin(), tail.end());
      changes.add(rule);
    }
  }
  changes.remove(old);
  changes.apply(filter);
}

/** The rules of a name in one packet filter. */
inline std::vector<Rule> rulesNamed(const char* filter, const std::string& name) {
  std::vector<Rule> rules = listRules(filter);
  std::erase_if(rules, [&](const Rule& rule) { return rule.name != name; });
  return rules;
}

inline void requireName(const std::string& name) {
  const auto isAllowed = [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.'; };
  if (name.empty() || name.size() > 64 || !std::all_of(name.begin(), name.end(), isAllowed))
    throw std::runtime_error("a rule's name has 1 to 64 letters, digits, '-', '_' and '.'");
}

/** Runs a command's work; one line on standard error and Failed when it throws. */
template <typename Work>
int runCommand(const char* command, Work work) {
  // A packet filter that stops reading shows in its exit status.
  std::signal(SIGPIPE, SIG_IGN);
  try {
    return work();
  } catch (const Poco::Exception& error) {
    std::cerr << command << ": " << error.displayText() << '\n';
  } catch (const std::exception& error) {
    std::cerr << command << ": " << error.what() << '\n';
  }
  return Failed;
}

}  // namespace Dscp
#endif
