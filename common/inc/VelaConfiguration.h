#ifndef VELA_CONFIGURATION_H
#define VELA_CONFIGURATION_H

#include <Poco/AutoPtr.h>
#include <Poco/DOM/Document.h>
#include <Poco/DOM/Element.h>

#include <string>
#include <vector>

namespace Vela {

/**
 * Reader of a component's XML configuration file. In text content, ${NAME} stands for the environment variable NAME
 * (empty when unset). Elements stay valid until unload.
 */
class VelaConfiguration {
 public:
  /** Reads and parses the file. Throws Vela::VelaException that names the file, the line and the reason. */
  void load(const std::string& fileName);
  /** Releases the document. */
  void unload();
  bool isLoaded() const { return !_document.isNull(); }

  /** All elements of a name, the root included, in document order. */
  std::vector<Poco::XML::Element*> findElements(const std::string& name) const;
  /** Child elements of a name, in document order. */
  static std::vector<Poco::XML::Element*> children(const Poco::XML::Element& parent, const std::string& name);
  /** Text content of the first child element of a name, blanks around it removed; false if there is none, or nothing in
      it. */
  static bool getText(const Poco::XML::Element& parent, const std::string& name, std::string& value);
  /** Text content of an element, blanks around it removed. */
  static std::string text(const Poco::XML::Element& element);
  /** As getText, as a number or boolean ("true", "yes", "on" or a number that is not 0; "false", "no", "off" or 0, in
     any case); a text that is none throws Vela::VelaException. */
  static bool getInt(const Poco::XML::Element& parent, const std::string& name, int& value);
  static bool getUInt64(const Poco::XML::Element& parent, const std::string& name, unsigned long long& value);
  static bool getBool(const Poco::XML::Element& parent, const std::string& name, bool& value);

 private:
  Poco::AutoPtr<Poco::XML::Document> _document;
};

}  // namespace Vela
#endif
