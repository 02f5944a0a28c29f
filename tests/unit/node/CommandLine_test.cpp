#include "ctl/CommandLine.h"

#include <gmock/gmock.h>

namespace VelaNode {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class CommandLineTest : public testing::Test {
 protected:
  CommandLine::Parsed parse(const std::vector<std::string>& words) const { return _line.parse(words); }
  std::string errorOf(const std::vector<std::string>& words) const {
    try {
      parse(words);
    } catch (const UsageError& ex) {
      return ex.what();
    }
    return "";
  }

  const CommandLine _line{
      "tool",
      "Does things.",
      {{"dir", "DIR", "folder", true}, {"json", "", "as JSON"}},
      {{"box open", "NAME", 1, 2, "Open a box.", {{"with", "TOOL", "tool", false, true}}, "Careful."},
       {"box shut", "", 0, 0, "Shut all boxes.", {{"hard", "", "with force"}}, ""},
       {"stop", "", 0, 0, "Stop.", {}, ""}}};
};

TEST_F(CommandLineTest, OptionsMayStandAnywhere) {
  const CommandLine::Parsed parsed = parse({"--with", "--json", "box", "--dir=a=b", "open", "x", "--json", "--with="});
  EXPECT_EQ("box open", parsed.command->path);
  EXPECT_EQ("a=b", parsed.arguments.get("dir"));
  EXPECT_TRUE(parsed.arguments.has("json"));
  EXPECT_THAT(parsed.arguments.getAll("with"), ElementsAre("--json", ""));
  EXPECT_THAT(parsed.arguments.words(), ElementsAre("x"));
  EXPECT_THAT(parse({"--dir", "d", "box", "open", "--", "--json", "-"}).arguments.words(), ElementsAre("--json", "-"));
}

TEST_F(CommandLineTest, WrongUsageIsNamed) {
  const struct {
    std::vector<std::string> words;
    const char* reason;
  } cases[] = {
      {{}, "no command"},
      {{"--dir", "d"}, "no command"},
      {{"leap"}, "unknown command 'leap'"},
      {{"box"}, "'box' needs a command"},
      {{"box", "leap"}, "unknown command 'box leap'"},
      {{"stop"}, "missing --dir DIR"},
      {{"--dir"}, "--dir needs a value"},
      {{"--dir", "d", "--dir", "e", "stop"}, "--dir is given twice"},
      {{"--dir", "d", "stop", "now"}, "too many words: 'now'"},
      {{"--dir", "d", "box", "open"}, "'box open' needs NAME"},
      {{"--dir", "d", "box", "open", "a", "b", "c"}, "too many words: 'c'"},
      {{"--dir", "d", "stop", "--hard"}, "'stop' has no option --hard"},
      {{"--dir", "d", "box", "shut", "--hard=very"}, "--hard takes no value"},
      {{"--dir", "d", "stop", "--di"}, "unknown option --di"},
      {{"--dir", "d", "stop", "-x"}, "unknown option -x"},
  };
  for (const auto& [words, reason] : cases) EXPECT_THAT(errorOf(words), HasSubstr(reason));
}

TEST_F(CommandLineTest, HelpFitsTheLevel) {
  EXPECT_THAT(parse({"--help"}).help,
              testing::AllOf(HasSubstr("Does things."), HasSubstr("box open"), HasSubstr("stop")));
  EXPECT_THAT(parse({"box", "-h"}).help, testing::AllOf(HasSubstr("box shut"), Not(HasSubstr("Stop."))));
  const CommandLine::Parsed parsed = parse({"box", "open", "--help"});
  EXPECT_EQ(nullptr, parsed.command);
  EXPECT_THAT(parsed.help, testing::AllOf(HasSubstr("--with TOOL"), HasSubstr("Careful."), HasSubstr("--json")));
}

TEST_F(CommandLineTest, NumbersAreChecked) {
  const Arguments arguments = parse({"--dir", "d", "box", "open", "4294967295", "4294967296", "--with=7"}).arguments;
  EXPECT_EQ(4294967295U, arguments.numberAt(0, "NAME"));
  EXPECT_THROW(arguments.numberAt(1, "NAME"), UsageError);
  EXPECT_EQ(7U, arguments.getNumber("with", 1));
  EXPECT_EQ(1U, arguments.getNumber("hard", 1));
  EXPECT_THROW(arguments.getNumber("with", 1, 6), UsageError);
  EXPECT_THROW(arguments.getNumber("dir", 1), UsageError);
}

}  // namespace
}  // namespace VelaNode
