#include "ctl/Secret.h"

#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "ctl/NodeClient.h"
#include "model/ModelSchema.h"

namespace VelaNode {

namespace {

bool holdsPassPhrase(const std::string& dn, const std::string& attribute) {
  const std::size_t begin = dn.rfind(',') + 1;
  const MoClass* moClass = ModelSchema::findClass(dn.substr(begin, dn.find('=', begin) - begin));
  const int index = moClass == nullptr ? -1 : moClass->findAttribute(attribute);
  return index >= 0 && moClass->getAttributes()[static_cast<std::size_t>(index)].isCredential();
}

/** Keeps a terminal from showing what is typed. */
class HiddenInput {
 public:
  explicit HiddenInput(const std::string& prompt) : _isTerminal(::tcgetattr(STDIN_FILENO, &_before) == 0) {
    if (!_isTerminal) return;
    std::cerr << prompt << std::flush;
    termios hidden = _before;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
  }
  ~HiddenInput() {
    if (!_isTerminal) return;
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &_before);
    std::cerr << '\n';
  }
  HiddenInput(const HiddenInput&) = delete;
  HiddenInput& operator=(const HiddenInput&) = delete;

 private:
  termios _before{};
  const bool _isTerminal;
};

std::string readStandardInput(const std::string& attribute) {
  const HiddenInput hidden(attribute + ": ");
  std::string line;
  if (!std::getline(std::cin, line)) throw CommandError(attribute + ": no pass phrase on standard input");
  return line;
}

std::string readFile(const std::string& attribute, const std::string& name) {
  std::ifstream stream(name, std::ios::binary);
  std::ostringstream content;
  if (!stream || !(content << stream.rdbuf())) {
    throw CommandError(attribute + ": " + name + ": " + (stream ? "no pass phrase in it" : std::strerror(errno)));
  }
  std::string text = content.str();
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

}  // namespace

std::optional<std::string> Secret::read(const std::string& dn, const std::string& attribute, const std::string& value) {
  if (value.empty() || !holdsPassPhrase(dn, attribute)) return std::nullopt;
  const bool isStandardInput = value == "-";
  if (!isStandardInput && value.front() != '@') {
    throw CommandError(attribute +
                       ": a pass phrase is not taken from the command line, which other users can read; give " +
                       attribute + "=@FILE, or " + attribute + "=- for standard input");
  }
  std::string secret = isStandardInput ? readStandardInput(attribute) : readFile(attribute, value.substr(1));
  if (!secret.empty() && secret.back() == '\r') secret.pop_back();
  if (secret.empty()) throw CommandError(attribute + ": the pass phrase is empty");
  if (secret.find_first_of(std::string("\n\0", 2)) != std::string::npos) {
    throw CommandError(attribute + ": a pass phrase is one line");
  }
  return secret;
}

}  // namespace VelaNode
