#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "ctl/CommandLine.h"
#include "ctl/Commands.h"
#include "ctl/Output.h"
#include "support/Utf8.h"

namespace {

constexpr int exitFailure = 1;
constexpr int exitUsage = 2;
constexpr const char* programName = "vela-nodectl";

void requireUtf8(const std::vector<std::string>& words) {
  for (const std::string& word : words) {
    if (VelaNode::toValidUtf8(word) != word) throw VelaNode::UsageError("an argument is not UTF-8");
  }
}

}  // namespace

int main(int argc, char** argv) {
  using namespace VelaNode;
  try {
    const std::vector<std::string> words(argv + 1, argv + argc);
    const CommandLine line(programName, "Operates a running node.", Commands::getCommonOptions(), Commands::getSpecs());
    requireUtf8(words);
    const CommandLine::Parsed parsed = line.parse(words);
    if (parsed.command == nullptr) {
      std::cout << parsed.help;
      return 0;
    }
    Commands::run(*parsed.command, parsed.arguments);
    std::cout << std::flush;
    return std::cout ? 0 : exitFailure;
  } catch (const UsageError& ex) {
    std::cerr << programName << ": " << Output::visible(ex.what()) << " (see " << programName << " --help)\n";
    return exitUsage;
  } catch (const std::exception& ex) {
    std::cerr << programName << ": " << Output::visible(ex.what()) << '\n';
    return exitFailure;
  }
}
