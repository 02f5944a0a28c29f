#ifndef VELA_NODE_MODEL_SCHEMA_H
#define VELA_NODE_MODEL_SCHEMA_H

#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "VelaOamSpiManagedObject.h"

namespace VelaNode {

/** Content of an attribute, immutable and shared by all versions of an object that have it. */
using MoAttributePtr = std::shared_ptr<const VelaOamSpiMoAttribute_3T>;

/** Member of a struct type. */
struct MoMemberDef {
  const char* name;
  VelaOamSpiMoTypeT type;
  bool isSecret = false; /**< never shown */
};

/** A value of an enumeration. */
struct MoEnumName {
  const char* name;
  int value;
};

/** What the schema says of an attribute. */
struct MoAttributeDef {
  const char* name;
  VelaOamSpiMoTypeT type;
  bool isSequence = false;
  bool isRunTime = false;            /**< not kept in the model file */
  const char* defaultText = nullptr; /**< null: no value until one is set */
  std::span<const MoMemberDef> members = {};
  std::span<const MoEnumName> enumNames = {};

  /** A struct {cleartext, password}, whose password the node encrypts. */
  bool isCredential() const;
};

/** A class of managed objects. All instances live as long as the process. */
class MoClass {
 public:
  const char* getName() const { return _name; }
  /** Class of the object above; null for a root. */
  const MoClass* getParent() const { return _parent; }
  /** Objects of the class are not kept in the model file. */
  bool isRunTime() const { return _isRunTime; }
  /** The objects' names are numbers and ordered as such. */
  bool isNumbered() const { return _isNumbered; }
  bool hasCredentials() const { return _hasCredentials; }
  /** Position in the alphabetical order of class names. */
  unsigned getRank() const { return _rank; }

  /** In the order in which they are shown. */
  const std::vector<MoAttributeDef>& getAttributes() const { return _attributes; }
  /** Index of an attribute, or -1. Allocates nothing. */
  int findAttribute(std::string_view name) const noexcept;
  /** What each attribute holds in a new object. */
  const std::vector<MoAttributePtr>& getDefaults() const { return _defaults; }

 private:
  friend class ModelSchema;

  const char* _name = nullptr;
  const MoClass* _parent = nullptr;
  bool _isRunTime = false;
  bool _isNumbered = false;
  bool _hasCredentials = false;
  unsigned _rank = 0;
  std::vector<MoAttributeDef> _attributes;
  std::vector<unsigned short> _byName;
  std::vector<MoAttributePtr> _defaults;
};

/** The table of all classes. */
class ModelSchema {
 public:
  /** Null if there is no such class. */
  static const MoClass* findClass(std::string_view name) noexcept;
  /** All classes, in alphabetical order. */
  static const std::vector<MoClass>& getClasses();

 private:
  static std::vector<MoClass> build();
};

}  // namespace VelaNode
#endif
