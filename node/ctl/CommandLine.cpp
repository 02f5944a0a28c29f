#include "ctl/CommandLine.h"

#include <Poco/NumberParser.h>

#include <algorithm>
#include <utility>

namespace VelaNode {

namespace {

std::string join(const std::vector<std::string>& words, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) text += (i == 0 ? "" : " ") + words[i];
  return text;
}

std::string optionUsage(const OptionSpec& option) {
  return "--" + option.name + (option.value.empty() ? "" : " " + option.value);
}

std::string optionLines(const std::vector<OptionSpec>& options) {
  std::size_t width = 0;
  for (const OptionSpec& option : options) width = std::max(width, optionUsage(option).size());
  std::string text;
  for (const OptionSpec& option : options) {
    std::string usage = optionUsage(option);
    usage.resize(width, ' ');
    text += "  " + usage + "  " + option.help + (option.isRequired ? " (required)" : "") +
            (option.isRepeated ? " (may be repeated)" : "") + "\n";
  }
  return text;
}

std::uint64_t parseNumber(const std::string& text, std::uint64_t limit, const std::string& what) {
  Poco::UInt64 number = 0;
  if (!Poco::NumberParser::tryParseUnsigned64(text, number) || number > limit) {
    throw UsageError(what + " is not a number from 0 to " + std::to_string(limit) + ": '" + text + "'");
  }
  return number;
}

}  // namespace

std::string Arguments::get(const std::string& option, const std::string& byDefault) const {
  const auto found = _options.find(option);
  return found == _options.end() ? byDefault : found->second.back();
}

std::vector<std::string> Arguments::getAll(const std::string& option) const {
  const auto found = _options.find(option);
  return found == _options.end() ? std::vector<std::string>{} : found->second;
}

std::uint64_t Arguments::getNumber(const std::string& option, std::uint64_t byDefault, std::uint64_t limit) const {
  return has(option) ? parseNumber(get(option), limit, "--" + option) : byDefault;
}

std::uint64_t Arguments::numberAt(std::size_t word, const std::string& what) const {
  return parseNumber(_words.at(word), std::numeric_limits<std::uint32_t>::max(), what);
}

CommandLine::CommandLine(std::string program, std::string purpose, std::vector<OptionSpec> common,
                         std::vector<CommandSpec> commands)
    : _program(std::move(program)),
      _purpose(std::move(purpose)),
      _common(std::move(common)),
      _commands(std::move(commands)) {}

CommandLine::Parsed CommandLine::parse(const std::vector<std::string>& words) const {
  Arguments arguments;
  std::vector<std::string> plain;
  bool wantsHelp = false;
  bool optionsEnded = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (optionsEnded || word.size() < 2 || word[0] != '-') {
      plain.push_back(word);
      continue;
    }
    if (word == "--") {
      optionsEnded = true;
      continue;
    }
    if (word == "--help" || word == "-h") {
      wantsHelp = true;
      continue;
    }
    const std::size_t equals = word.find('=');
    const std::string name = word.compare(0, 2, "--") == 0 ? word.substr(2, equals - 2) : std::string();
    const OptionSpec* option = findOption(name);
    if (option == nullptr) throw UsageError("unknown option " + word.substr(0, equals));
    std::string value;
    if (option->value.empty()) {
      if (equals != std::string::npos) throw UsageError("--" + name + " takes no value");
    } else if (equals != std::string::npos) {
      value = word.substr(equals + 1);
    } else if (++i < words.size()) {
      value = words[i];
    } else {
      throw UsageError("--" + name + " needs a value: " + option->value);
    }
    std::vector<std::string>& values = arguments._options[name];
    if (!values.empty() && !option->isRepeated) throw UsageError("--" + name + " is given twice");
    values.push_back(std::move(value));
  }

  std::size_t length = 0;
  const CommandSpec* command = findCommand(plain, length);
  if (command == nullptr) {
    const std::string prefix = plain.empty() ? "" : plain[0];
    if (!prefix.empty() && !isGroup(prefix)) throw UsageError("unknown command '" + prefix + "'");
    if (wantsHelp) return {nullptr, {}, groupHelp(prefix)};
    if (prefix.empty()) throw UsageError("no command");
    throw UsageError(plain.size() > 1 ? "unknown command '" + join(plain, 2) + "'"
                                      : "'" + prefix + "' needs a command");
  }
  if (wantsHelp) return {nullptr, {}, commandHelp(*command)};
  arguments._words.assign(plain.begin() + static_cast<std::ptrdiff_t>(length), plain.end());
  check(*command, arguments);
  return {command, std::move(arguments), {}};
}

const CommandSpec* CommandLine::findCommand(const std::vector<std::string>& path, std::size_t& length) const {
  for (length = std::min<std::size_t>(2, path.size()); length > 0; --length) {
    const std::string wanted = join(path, length);
    for (const CommandSpec& command : _commands) {
      if (command.path == wanted) return &command;
    }
  }
  return nullptr;
}

bool CommandLine::isGroup(const std::string& prefix) const {
  return std::any_of(_commands.begin(), _commands.end(), [&](const CommandSpec& command) {
    return command.path.compare(0, prefix.size() + 1, prefix + " ") == 0;
  });
}

const OptionSpec* CommandLine::findOption(const std::string& name) const {
  const auto isNamed = [&](const OptionSpec& option) { return option.name == name; };
  const auto common = std::find_if(_common.begin(), _common.end(), isNamed);
  if (common != _common.end()) return &*common;
  for (const CommandSpec& command : _commands) {
    const auto found = std::find_if(command.options.begin(), command.options.end(), isNamed);
    if (found != command.options.end()) return &*found;
  }
  return nullptr;
}

void CommandLine::check(const CommandSpec& command, const Arguments& arguments) const {
  for (const auto& [name, values] : arguments._options) {
    const auto isNamed = [&name = name](const OptionSpec& option) { return option.name == name; };
    if (std::none_of(_common.begin(), _common.end(), isNamed) &&
        std::none_of(command.options.begin(), command.options.end(), isNamed)) {
      throw UsageError("'" + command.path + "' has no option --" + name);
    }
  }
  for (const std::vector<OptionSpec>* options : {&_common, &command.options}) {
    for (const OptionSpec& option : *options) {
      if (option.isRequired && !arguments.has(option.name)) throw UsageError("missing " + optionUsage(option));
    }
  }
  const std::size_t count = arguments.words().size();
  if (count < command.minWords) throw UsageError("'" + command.path + "' needs " + command.words);
  if (count > command.maxWords) throw UsageError("too many words: '" + arguments.words()[command.maxWords] + "'");
}

std::string CommandLine::groupHelp(const std::string& prefix) const {
  std::string text = "usage: " + _program + " --dir DIR " + (prefix.empty() ? "" : prefix + " ") + "COMMAND ...\n\n";
  if (prefix.empty()) text += _purpose + "\n\n";
  text += "Commands:\n";
  std::size_t width = 0;
  for (const CommandSpec& command : _commands) width = std::max(width, command.path.size());
  for (const CommandSpec& command : _commands) {
    if (!prefix.empty() && command.path.compare(0, prefix.size() + 1, prefix + " ") != 0) continue;
    std::string path = command.path;
    path.resize(width, ' ');
    text += "  " + path + "  " + command.summary + "\n";
  }
  return text + "\nOptions of every command:\n" + optionLines(_common) + "\nMore: " + _program + " " +
         (prefix.empty() ? "" : prefix + " ") + "COMMAND --help\n";
}

std::string CommandLine::commandHelp(const CommandSpec& command) const {
  std::string text = "usage: " + _program + " --dir DIR " + command.path;
  for (const OptionSpec& option : command.options) {
    if (option.isRequired) text += " " + optionUsage(option);
  }
  if (!command.words.empty()) text += " " + command.words;
  if (std::any_of(command.options.begin(), command.options.end(), [](const OptionSpec& o) { return !o.isRequired; })) {
    text += " [OPTION]...";
  }
  text += "\n\n" + command.summary + "\n";
  if (!command.options.empty()) text += "\nOptions:\n" + optionLines(command.options);
  text += "\nOptions of every command:\n" + optionLines(_common);
  if (!command.notes.empty()) text += "\n" + command.notes + "\n";
  return text;
}

}  // namespace VelaNode
