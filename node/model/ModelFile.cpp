#include "model/ModelFile.h"

#include <Poco/SAX/Attributes.h>
#include <Poco/SAX/DefaultHandler.h>
#include <Poco/SAX/Locator.h>
#include <Poco/SAX/SAXException.h>
#include <Poco/SAX/SAXParser.h>

#include <cstring>
#include <map>
#include <optional>
#include <variant>
#include <vector>

#include "VelaException.h"
#include "model/MoAttribute.h"
#include "support/Files.h"

namespace VelaNode {

using Vela::VelaException;

namespace {

constexpr const char* RootElement = "model";
constexpr const char* NameAttribute = "id";
constexpr const char* Blanks = " \t\r\n";

// ---- reading ------------------------------------------------------------------------------------------------------

/**
 * Builds a tree from SAX events. The first fault is kept and everything after it ignored, because an exception must not
 * pass through the C code of the parser.
 */
class ModelHandler : public Poco::XML::DefaultHandler {
 public:
  const MoTree& getTree() const { return _tree; }
  const std::optional<std::string>& getFault() const { return _fault; }
  int getFaultLine() const { return _faultLine; }

  void setDocumentLocator(const Poco::XML::Locator* locator) override { _locator = locator; }

  void startElement(const Poco::XML::XMLString&, const Poco::XML::XMLString&, const Poco::XML::XMLString& name,
                    const Poco::XML::Attributes& attributes) override {
    guarded([&] {
      if (!_hasRoot) {
        beginModel(name, attributes);
      } else if (_member) {
        refuse("<" + name + "> is not allowed inside a value");
      } else if (_attribute) {
        beginMember(name, attributes);
      } else {
        beginInObject(name, attributes);
      }
    });
  }

  void endElement(const Poco::XML::XMLString&, const Poco::XML::XMLString&, const Poco::XML::XMLString&) override {
    guarded([&] {
      if (_member) {
        endMember();
      } else if (_attribute) {
        endAttribute();
      } else if (!_objects.empty()) {
        endObject();
      }
    });
  }

  void characters(const Poco::XML::XMLChar text[], int start, int length) override {
    guarded([&] {
      const std::string_view part(text + start, static_cast<std::size_t>(length));
      const bool isValue = _member || (_attribute && _attribute->definition->type != VELA_MO_STRUCT);
      if (isValue) {
        _text += part;
      } else if (part.find_first_not_of(Blanks) != std::string_view::npos) {
        refuse("text is not allowed here: " + quoted(part));
      }
    });
  }

 private:
  struct OpenObject {
    std::shared_ptr<MoObject> object;
    std::map<std::size_t, std::vector<MoValue>> values; /**< by the attribute's index */
  };
  struct OpenAttribute {
    std::size_t index;
    const MoAttributeDef* definition;
    MoValue::Members members;
    int line;
  };
  struct OpenMember {
    const MoMemberDef* definition;
  };

  [[noreturn]] static void refuse(const std::string& reason) {
    throw VelaException(VELA_INVALID, "%s", reason.c_str());
  }

  template <class Operation>
  void guarded(const Operation& operation) {
    if (_fault) return;
    try {
      _line = _locator == nullptr ? 0 : static_cast<int>(_locator->getLineNumber());
      operation();
    } catch (const std::exception& ex) {
      _fault = ex.what();
      _faultLine = _line;
    }
  }

  static void refuseAttributes(const std::string& name, const Poco::XML::Attributes& attributes) {
    if (attributes.getLength() != 0)
      refuse("<" + name + "> must not have the attribute " + quoted(attributes.getQName(0)));
  }

  void beginModel(const std::string& name, const Poco::XML::Attributes& attributes) {
    if (name != RootElement) refuse("the root element is <" + name + ">, <model> is expected");
    refuseAttributes(name, attributes);
    _hasRoot = true;
  }

  const MoClass* currentClass() const { return _objects.empty() ? nullptr : &_objects.back().object->getClass(); }

  void beginInObject(const std::string& name, const Poco::XML::Attributes& attributes) {
    const MoClass* const above = currentClass();
    const int index = above == nullptr ? -1 : above->findAttribute(name);
    if (index >= 0) {
      beginAttribute(static_cast<std::size_t>(index), attributes);
    } else if (const MoClass* moClass = ModelSchema::findClass(name)) {
      beginObject(*moClass, attributes);
    } else {
      refuse(above == nullptr ? "there is no class " + name
                              : "class " + std::string(above->getName()) + " has no attribute " + name +
                                    ", and there is no class of that name");
    }
  }

  void beginObject(const MoClass& moClass, const Poco::XML::Attributes& attributes) {
    const std::string name = moClass.getName();
    const MoClass* const above = currentClass();
    if (moClass.getParent() != above) {
      refuse("class " + name + " does not stand under " + (above == nullptr ? "<model>" : above->getName()) +
             " but under " + (moClass.getParent() == nullptr ? "<model>" : moClass.getParent()->getName()));
    }
    if (moClass.isRunTime()) refuse("objects of class " + name + " exist at run time only");
    if (attributes.getLength() != 1 || attributes.getQName(0) != NameAttribute) {
      refuse("<" + name + "> needs exactly one attribute, id");
    }
    const std::string dn =
        (above == nullptr ? "" : _objects.back().object->getDn() + ",") + name + "=" + attributes.getValue(0);
    MoDn path;
    std::string reason;
    if (!path.parse(dn, &reason) || path.size() != _objects.size() + 1) {
      refuse(reason.empty() ? "bad id " + quoted(attributes.getValue(0)) : reason);
    }
    if (_tree.find(dn)) refuse("the object " + dn + " is there twice");
    _objects.push_back({std::make_shared<MoObject>(moClass, dn), {}});
    _tree.put(std::make_shared<const MoObject>(moClass, dn));
  }

  void endObject() {
    OpenObject& open = _objects.back();
    for (const auto& [index, values] : open.values) {
      open.object->setAttribute(index, makeAttribute(open.object->getClass().getAttributes()[index], values));
    }
    _tree.put(open.object);
    _objects.pop_back();
  }

  void beginAttribute(std::size_t index, const Poco::XML::Attributes& attributes) {
    const OpenObject& open = _objects.back();
    const MoAttributeDef& definition = open.object->getClass().getAttributes()[index];
    refuseAttributes(definition.name, attributes);
    if (definition.isRunTime) refuse("attribute " + std::string(definition.name) + " exists at run time only");
    if (!definition.isSequence && open.values.count(index) != 0) {
      refuse("attribute " + std::string(definition.name) + " is there twice");
    }
    _attribute.emplace(OpenAttribute{index, &definition, {}, _line});
    _text.clear();
  }

  void endAttribute() {
    const OpenAttribute open = std::move(*_attribute);
    _attribute.reset();
    OpenObject& owner = _objects.back();
    _line = open.line;
    try {
      MoValue value = open.definition->type == VELA_MO_STRUCT
                          ? MoValue(open.members)
                          : parseScalar(open.definition->type, open.definition->enumNames, _text);
      // Checked here, where the line is known; the attribute is made when all of its values are there.
      MoAttributeDef single = *open.definition;
      single.isSequence = false;
      makeAttribute(single, {value});
      owner.values[open.index].push_back(std::move(value));
    } catch (const VelaException& ex) {
      refuse(owner.object->getDn() + "::" + open.definition->name + ": " + ex.what());
    }
  }

  void beginMember(const std::string& name, const Poco::XML::Attributes& attributes) {
    const MoAttributeDef& definition = *_attribute->definition;
    refuseAttributes(name, attributes);
    if (definition.type != VELA_MO_STRUCT) refuse("<" + name + "> is not allowed inside <" + definition.name + ">");
    for (const MoMemberDef& member : definition.members) {
      if (member.name == name) _member.emplace(OpenMember{&member});
    }
    if (!_member) refuse("attribute " + std::string(definition.name) + " has no member " + name);
    _text.clear();
  }

  void endMember() {
    const MoMemberDef& definition = *_member->definition;
    _member.reset();
    try {
      _attribute->members.push_back({definition.name, parseScalar(definition.type, {}, _text)});
    } catch (const VelaException& ex) {
      refuse(_objects.back().object->getDn() + "::" + _attribute->definition->name + "." + definition.name + ": " +
             ex.what());
    }
  }

  const Poco::XML::Locator* _locator = nullptr;
  int _line = 0;
  std::optional<std::string> _fault;
  int _faultLine = 0;
  bool _hasRoot = false;
  MoTree _tree;
  std::vector<OpenObject> _objects;
  std::optional<OpenAttribute> _attribute;
  std::optional<OpenMember> _member;
  std::string _text;
};

// ---- writing ------------------------------------------------------------------------------------------------------

/** Escapes what a parser would take for something else, or normalise. */
std::string escaped(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '"':
        result += "&quot;";
        break;
      case '\r':
        result += "&#13;";
        break;
      default:
        result += c;
    }
  }
  return result;
}

std::string element(const char* name, const std::string& content) {
  return std::string("<") + name + ">" + content + "</" + name + ">";
}

std::string formatValue(const MoAttributeDef& definition, const VelaOamSpiMoValue_3T& value) {
  if (value.type != VELA_MO_STRUCT) return escaped(formatScalar(value, definition.enumNames));
  std::string members;
  for (std::size_t i = 0; i < value.memberCount; ++i) {
    const VelaOamSpiMoMember_3T& member = value.members[i];
    if (member.isSet) members += element(member.name, escaped(formatScalar(member.value, {})));
  }
  return members;
}

void formatNode(const MoNode& node, const std::string& indentation, std::string& out) {
  const MoClass& moClass = node.object->getClass();
  const std::string inner = indentation + "  ";
  std::string content;
  for (std::size_t i = 0; i < moClass.getAttributes().size(); ++i) {
    const MoAttributeDef& definition = moClass.getAttributes()[i];
    const VelaOamSpiMoAttribute_3T& attribute = *node.object->getAttribute(i);
    if (definition.isRunTime) continue;
    for (std::size_t n = 0; n < attribute.valueCount; ++n) {
      content += inner + element(definition.name, formatValue(definition, attribute.values[n])) + "\n";
    }
  }
  for (const MoFamily& family : node.families) {
    if (family.moClass->isRunTime()) continue;
    family.members.forEach([&](const MoNode& child) {
      formatNode(child, inner, content);
      return true;
    });
  }
  const std::string name = moClass.getName();
  out += indentation + "<" + name + " " + NameAttribute + "=\"" + escaped(node.object->getName().text) + "\"";
  out += content.empty() ? "/>\n" : ">\n" + content + indentation + "</" + name + ">\n";
}

}  // namespace

MoTree ModelFile::parse(const std::string& text, const std::string& name) {
  ModelHandler handler;
  Poco::XML::SAXParser parser;
  parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACES, false);
  parser.setFeature(Poco::XML::XMLReader::FEATURE_EXTERNAL_GENERAL_ENTITIES, false);
  parser.setContentHandler(&handler);
  std::optional<std::string> syntaxFault;
  int line = 1;
  try {
    parser.parseString(text);
  } catch (const Poco::XML::SAXParseException& ex) {
    syntaxFault = ex.message();
    line = static_cast<int>(ex.getLineNumber());
  } catch (const Poco::Exception& ex) {
    syntaxFault = ex.displayText();
  }
  // What the handler refused stands before what the parser stumbled over.
  if (handler.getFault()) {
    throw VelaException(VELA_INVALID, "%s:%d: %s", name.c_str(), handler.getFaultLine(), handler.getFault()->c_str());
  }
  if (syntaxFault) throw VelaException(VELA_INVALID, "%s:%d: not XML: %s", name.c_str(), line, syntaxFault->c_str());
  return handler.getTree();
}

std::string ModelFile::format(const MoTree& tree) {
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<model>\n";
  for (const MoFamily& family : tree.getRoot().families) {
    family.members.forEach([&text](const MoNode& node) {
      formatNode(node, "  ", text);
      return true;
    });
  }
  return text + "</model>\n";
}

void ModelFile::load(MoStore& store) const {
  const MoTree tree = parse(readWholeFile(_path), _path);
  bool hasChanged = false;
  try {
    hasChanged = store.install(tree);
  } catch (const std::exception& ex) {
    throw VelaException("%s: a password cannot be encrypted: %s", _path.c_str(), ex.what());
  }
  if (hasChanged) save(store.getTree());
}

void ModelFile::save(const MoTree& tree) const { writeWholeFile(_path, format(tree)); }

}  // namespace VelaNode
