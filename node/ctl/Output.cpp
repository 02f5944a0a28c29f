#include "ctl/Output.h"

#include <Poco/JSON/Stringifier.h>

#include <iostream>
#include <sstream>

namespace VelaNode {

void Output::print(const Poco::JSON::Object& result, const std::string& plainText) {
  if (_isJson) {
    result.stringify(std::cout);
    std::cout << '\n';
  } else if (!plainText.empty()) {
    std::cout << plainText << '\n';
  }
}

void Output::printItem(const Poco::JSON::Object& item, const std::string& plainText) {
  if (_isJson) {
    std::cout << (_hasItems ? ",\n" : "[");
    _hasItems = true;
    item.stringify(std::cout);
  } else {
    std::cout << plainText << '\n';
  }
}

void Output::endList() {
  if (_isJson) std::cout << (_hasItems ? "]\n" : "[]\n");
}

std::string Output::toText(const Poco::Dynamic::Var& value) {
  if (value.isEmpty()) return "";
  if (value.isString()) return value.extract<std::string>();
  std::ostringstream text;
  Poco::JSON::Stringifier::stringify(value, text);
  return text.str();
}

}  // namespace VelaNode
