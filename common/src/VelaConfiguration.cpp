#include "VelaConfiguration.h"

#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Node.h>
#include <Poco/DOM/NodeList.h>
#include <Poco/Exception.h>
#include <Poco/NumberParser.h>
#include <Poco/SAX/InputSource.h>
#include <Poco/SAX/SAXException.h>
#include <Poco/String.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <utility>

#include "VelaException.h"

namespace Vela {

namespace {

std::string expandVariables(const std::string& text) {
  std::string result;
  size_t position = 0;
  for (;;) {
    const size_t begin = text.find("${", position);
    const size_t end = begin == std::string::npos ? begin : text.find('}', begin);
    if (end == std::string::npos) break;
    result.append(text, position, begin - position);
    const char* value = std::getenv(text.substr(begin + 2, end - begin - 2).c_str());
    if (value != nullptr) result += value;
    position = end + 1;
  }
  return result.append(text, position);
}

}  // namespace

void VelaConfiguration::load(const std::string& fileName) {
  unload();
  std::ifstream stream(fileName);
  if (!stream) throw VelaException("%s: %s", fileName.c_str(), std::strerror(errno));
  try {
    Poco::XML::InputSource source(stream);
    source.setSystemId(fileName);
    Poco::XML::DOMParser parser;
    _document = parser.parse(&source);
  } catch (const Poco::XML::SAXParseException& ex) {
    throw VelaException("%s:%d: %s", fileName.c_str(), ex.getLineNumber(), ex.message().c_str());
  } catch (const Poco::Exception& ex) {
    throw VelaException("%s: %s", fileName.c_str(), ex.displayText().c_str());
  }
}

void VelaConfiguration::unload() { _document = nullptr; }

std::vector<Poco::XML::Element*> VelaConfiguration::findElements(const std::string& name) const {
  std::vector<Poco::XML::Element*> found;
  if (_document.isNull()) return found;
  const Poco::AutoPtr<Poco::XML::NodeList> elements = _document->getElementsByTagName(name);
  const unsigned long count = elements->length();
  found.reserve(count);
  for (unsigned long i = 0; i < count; ++i) found.push_back(dynamic_cast<Poco::XML::Element*>(elements->item(i)));
  return found;
}

std::vector<Poco::XML::Element*> VelaConfiguration::children(const Poco::XML::Element& parent,
                                                             const std::string& name) {
  std::vector<Poco::XML::Element*> found;
  for (Poco::XML::Node* node = parent.firstChild(); node != nullptr; node = node->nextSibling()) {
    if (node->nodeType() == Poco::XML::Node::ELEMENT_NODE && node->nodeName() == name) {
      found.push_back(dynamic_cast<Poco::XML::Element*>(node));
    }
  }
  return found;
}

bool VelaConfiguration::getText(const Poco::XML::Element& parent, const std::string& name, std::string& value) {
  const std::vector<Poco::XML::Element*> elements = children(parent, name);
  std::string content = elements.empty() ? std::string() : text(*elements.front());
  if (content.empty()) return false;
  value = std::move(content);
  return true;
}

std::string VelaConfiguration::text(const Poco::XML::Element& element) {
  return expandVariables(Poco::trim(element.innerText()));
}

bool VelaConfiguration::getInt(const Poco::XML::Element& parent, const std::string& name, int& value) {
  std::string content;
  if (!getText(parent, name, content)) return false;
  if (!Poco::NumberParser::tryParse(content, value)) {
    throw VelaException("%s is not a number: '%s'", name.c_str(), content.c_str());
  }
  return true;
}

bool VelaConfiguration::getUInt64(const Poco::XML::Element& parent, const std::string& name,
                                  unsigned long long& value) {
  std::string content;
  if (!getText(parent, name, content)) return false;
  Poco::UInt64 number = 0;
  if (!Poco::NumberParser::tryParseUnsigned64(content, number)) {
    throw VelaException("%s is not a number: '%s'", name.c_str(), content.c_str());
  }
  value = number;
  return true;
}

bool VelaConfiguration::getBool(const Poco::XML::Element& parent, const std::string& name, bool& value) {
  std::string content;
  if (!getText(parent, name, content)) return false;
  if (!Poco::NumberParser::tryParseBool(content, value)) {
    throw VelaException("%s is not a boolean: '%s'", name.c_str(), content.c_str());
  }
  return true;
}

}  // namespace Vela
