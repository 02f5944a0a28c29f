#include "host/ComponentConfigCheck.h"

#include <Poco/Exception.h>
#include <Poco/SAX/Attributes.h>
#include <Poco/SAX/DefaultHandler.h>
#include <Poco/SAX/InputSource.h>
#include <Poco/SAX/Locator.h>
#include <Poco/SAX/SAXException.h>
#include <Poco/SAX/SAXParser.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

#include "VelaConfiguration.h"
#include "VelaException.h"

namespace VelaNode {

namespace {

enum class Kind { Int, UInt64, Bool };

struct Setting {
  const char* name;
  Kind kind;
};

/** The settings whose text must be of a kind; all others are plain text. */
constexpr Setting typedSettings[] = {
    {"snmpFallbackPort", Kind::Int},
    {"snmpPollInterval", Kind::UInt64},
    {"useInternalTrapListener", Kind::Bool},
    {"informTimeout", Kind::Bool},
    {"ipv6PortWorkaroudEnabled", Kind::Bool},
    {"agentxPingInterval", Kind::Int},
    {"agentxTimeout", Kind::Int},
    {"agentxRetries", Kind::Int},
};
constexpr const char* agentxSocketSetting = "snmpMasterAgentAgentxSocket";
constexpr const char* passwordFileSetting = "snmpMasterAgentPwdFile";

/** Notes where the elements of a document stand, since a document tree does not tell. */
class ElementLocator : public Poco::XML::DefaultHandler {
 public:
  void setDocumentLocator(const Poco::XML::Locator* locator) override { _locator = locator; }
  void startElement(const Poco::XML::XMLString&, const Poco::XML::XMLString& localName,
                    const Poco::XML::XMLString& qualifiedName, const Poco::XML::Attributes&) override {
    const std::string& name = localName.empty() ? qualifiedName : localName;
    if (_depth == 0) {
      _root = name;
      _rootLine = _locator->getLineNumber();
    } else if (_depth == 1) {
      _lines.emplace(name, _locator->getLineNumber());
    }
    ++_depth;
  }
  void endElement(const Poco::XML::XMLString&, const Poco::XML::XMLString&, const Poco::XML::XMLString&) override {
    --_depth;
  }

  const std::string& root() const { return _root; }
  int rootLine() const { return _rootLine; }
  /** Line of the first child of the root with a name. */
  int lineOf(const std::string& name) const {
    const auto found = _lines.find(name);
    return found == _lines.end() ? _rootLine : found->second;
  }

 private:
  const Poco::XML::Locator* _locator = nullptr;
  int _depth = 0;
  std::string _root;
  int _rootLine = 0;
  std::map<std::string, int> _lines;
};

void locateElements(const std::string& fileName, ElementLocator& elements) {
  std::ifstream stream(fileName);
  const bool isDirectory = std::filesystem::is_directory(fileName);
  if (isDirectory) errno = EISDIR;
  if (!stream || isDirectory) throw Vela::VelaException("%s: %s", fileName.c_str(), std::strerror(errno));
  try {
    Poco::XML::InputSource source(stream);
    Poco::XML::SAXParser parser;
    parser.setContentHandler(&elements);
    parser.parse(&source);
  } catch (const Poco::XML::SAXParseException& ex) {
    throw Vela::VelaException("%s:%d: %s", fileName.c_str(), ex.getLineNumber(), ex.message().c_str());
  } catch (const Poco::Exception& ex) {
    throw Vela::VelaException("%s: %s", fileName.c_str(), ex.displayText().c_str());
  }
}

void checkSetting(const Poco::XML::Element& root, const Setting& setting) {
  int number = 0;
  unsigned long long unsignedNumber = 0;
  bool flag = false;
  switch (setting.kind) {
    case Kind::Int:
      Vela::VelaConfiguration::getInt(root, setting.name, number);
      break;
    case Kind::UInt64:
      Vela::VelaConfiguration::getUInt64(root, setting.name, unsignedNumber);
      break;
    case Kind::Bool:
      Vela::VelaConfiguration::getBool(root, setting.name, flag);
      break;
  }
}

std::string pathSetting(const Poco::XML::Element& root, const char* name, const char* byDefault) {
  std::string value = byDefault;
  Vela::VelaConfiguration::getText(root, name, value);
  return value;
}

}  // namespace

ComponentPaths ComponentConfigCheck::check(const std::string& fileName) {
  ElementLocator elements;
  locateElements(fileName, elements);
  if (elements.root() != rootName) {
    throw Vela::VelaException("%s:%d: the root element is \"%s\", not \"%s\"", fileName.c_str(), elements.rootLine(),
                              elements.root().c_str(), rootName);
  }
  Vela::VelaConfiguration configuration;
  configuration.load(fileName);
  const Poco::XML::Element& root = *configuration.findElements(rootName).front();
  for (const Setting& setting : typedSettings) {
    try {
      checkSetting(root, setting);
    } catch (const Vela::VelaException& ex) {
      throw Vela::VelaException("%s:%d: %s", fileName.c_str(), elements.lineOf(setting.name), ex.what());
    }
  }
  return {pathSetting(root, agentxSocketSetting, defaultAgentxSocket),
          pathSetting(root, passwordFileSetting, defaultPasswordFile)};
}

}  // namespace VelaNode
