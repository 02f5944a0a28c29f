#ifndef VELA_NODE_COMMAND_LINE_H
#define VELA_NODE_COMMAND_LINE_H

#include <cstdint>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace VelaNode {

/** The command line does not follow the usage; the text says how, and where help is. */
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/** An option of a command: a flag when it names no value. */
struct OptionSpec {
  std::string name; /**< without the dashes */
  std::string value;
  std::string help;
  bool isRequired = false;
  bool isRepeated = false;
};

/** What a command line said: the values of the options and the words beside them. */
class Arguments {
 public:
  bool has(const std::string& option) const { return _options.count(option) != 0; }
  /** Value of an option, or the default. */
  std::string get(const std::string& option, const std::string& byDefault = {}) const;
  std::vector<std::string> getAll(const std::string& option) const;
  const std::vector<std::string>& words() const { return _words; }

  /** An option's value as a number; throws UsageError when it is none or beyond the limit. */
  std::uint64_t getNumber(const std::string& option, std::uint64_t byDefault,
                          std::uint64_t limit = std::numeric_limits<std::uint32_t>::max()) const;
  /** A word as a number; `what` names it in the UsageError. */
  std::uint64_t numberAt(std::size_t word, const std::string& what) const;

 private:
  friend class CommandLine;
  std::map<std::string, std::vector<std::string>> _options;
  std::vector<std::string> _words;
};

/** A command: its path ("alarm raise"), what it takes and what it is for. */
struct CommandSpec {
  std::string path;
  std::string words; /**< usage of the words behind the path, e.g. "INDEX" */
  std::size_t minWords = 0;
  std::size_t maxWords = 0;
  std::string summary;
  std::vector<OptionSpec> options;
  std::string notes; /**< printed at the end of the command's help */
};

/**
 * Splits a command line by a table of commands. Options may stand anywhere, as "--name value" or "--name=value";
 * "--" ends them.
 */
class CommandLine {
 public:
  CommandLine(std::string program, std::string purpose, std::vector<OptionSpec> common,
              std::vector<CommandSpec> commands);

  struct Parsed {
    const CommandSpec* command = nullptr; /**< null: only help was asked for */
    Arguments arguments;
    std::string help; /**< the help text to print, when help was asked for */
  };
  /** Throws UsageError. */
  Parsed parse(const std::vector<std::string>& words) const;

 private:
  const CommandSpec* findCommand(const std::vector<std::string>& path, std::size_t& length) const;
  bool isGroup(const std::string& prefix) const;
  std::string groupHelp(const std::string& prefix) const;
  std::string commandHelp(const CommandSpec& command) const;
  const OptionSpec* findOption(const std::string& name) const;
  void check(const CommandSpec& command, const Arguments& arguments) const;

  const std::string _program;
  const std::string _purpose;
  const std::vector<OptionSpec> _common;
  const std::vector<CommandSpec> _commands;
};

}  // namespace VelaNode
#endif
