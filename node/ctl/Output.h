#ifndef VELA_NODE_OUTPUT_H
#define VELA_NODE_OUTPUT_H

#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Object.h>

#include <string>
#include <string_view>

namespace VelaNode {

/** What a command prints, on standard output: plain lines for people, or one JSON document. */
class Output {
 public:
  explicit Output(bool isJson) : _isJson(isJson) {}

  bool isJson() const { return _isJson; }

  /** A result: the JSON document, or the plain text (none when it is empty). */
  void print(const Poco::JSON::Object& result, const std::string& plainText);
  /** A result: the JSON document, or a text with colours, whose parts are visible() already. */
  void printColoured(const Poco::JSON::Object& result, const std::string& visibleText);
  /** A list, item by item: endList is called at its end, also when it was empty. */
  void printItem(const Poco::JSON::Object& item, const std::string& plainText);
  void endList();

  /** A text that may be anybody's, as it may be shown on a terminal: control characters, other than line ends and tabs,
      are question marks. */
  static std::string visible(std::string_view text);
  /** The same in one line: line ends and tabs are blanks. */
  static std::string visibleLine(std::string_view text);

  /** A value of an attribute as people read it: texts bare, structures as JSON, nothing for no value. */
  static std::string toText(const Poco::Dynamic::Var& value);

 private:
  const bool _isJson;
  bool _hasItems = false;
};

}  // namespace VelaNode
#endif
