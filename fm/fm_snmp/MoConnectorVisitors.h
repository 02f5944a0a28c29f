/** Visitors of the model's objects: each builds the component's picture of one kind of object. */
#ifndef VELA_FM_SNMP_MO_CONNECTOR_VISITORS_H
#define VELA_FM_SNMP_MO_CONNECTOR_VISITORS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "MoAccessor.h"
#include "MoConnector.h"
#include "SnmpAlarm.h"
#include "SnmpTypes.h"

namespace VelaFmSnmp {

/**
 * Reads the attributes of one object. What cannot be read is logged, costs that attribute only, and leaves the variable
 * as it was.
 */
class AttributeReader {
 public:
  AttributeReader(Vela::MoAccessor& accessor, const std::string& dn) : _accessor(accessor), _dn(dn) {}

  const std::string& getDn() const { return _dn; }
  /** Whether there is a value. */
  template <class T>
  bool read(const std::string& name, T& value);
  /** As read; no value is a fault too. */
  template <class T>
  bool readMandatory(const std::string& name, T& value);
  template <class T>
  bool readSequence(const std::string& name, std::vector<T>& values);
  /** Counts a mandatory attribute as missing that had a value, but not one that can be used. */
  void addMissing() { ++_missing; }

  std::uint32_t getMissing() const { return _missing; }     /**< mandatory attributes without a usable value */
  std::uint32_t getDefaulted() const { return _defaulted; } /**< other attributes that could not be read */

 private:
  /** Runs a read; false, logged, when it throws. */
  template <class Read>
  bool attempt(const std::string& name, Read read);

  Vela::MoAccessor& _accessor;
  const std::string& _dn;
  std::uint32_t _missing = 0;
  std::uint32_t _defaulted = 0;
};

/** Adds the target that each object describes to a configuration, unless its name is taken. */
class SnmpTargetVisitor : public Vela::MoAccessor::IMoTraverser {
 public:
  explicit SnmpTargetVisitor(SnmpConfig& config) : _config(config) {}
  bool visit(Vela::MoAccessor& accessor, const std::string& dn) override;

 protected:
  virtual Poco::AutoPtr<SnmpBaseTarget> build(AttributeReader& reader) = 0;

 private:
  SnmpConfig& _config;
};

class SnmpTargetV1Visitor : public SnmpTargetVisitor {
 public:
  using SnmpTargetVisitor::SnmpTargetVisitor;

 protected:
  Poco::AutoPtr<SnmpBaseTarget> build(AttributeReader& reader) override;
};

class SnmpTargetV2Visitor : public SnmpTargetVisitor {
 public:
  using SnmpTargetVisitor::SnmpTargetVisitor;

 protected:
  Poco::AutoPtr<SnmpBaseTarget> build(AttributeReader& reader) override;
};

class SnmpTargetV3Visitor : public SnmpTargetVisitor {
 public:
  using SnmpTargetVisitor::SnmpTargetVisitor;

 protected:
  Poco::AutoPtr<SnmpBaseTarget> build(AttributeReader& reader) override;
};

class SnmpTargetV3DtlsVisitor : public SnmpTargetVisitor {
 public:
  using SnmpTargetVisitor::SnmpTargetVisitor;

 protected:
  Poco::AutoPtr<SnmpBaseTarget> build(AttributeReader& reader) override;
};

/** Adds the view that each object describes to a configuration. */
class SnmpView : public Vela::MoAccessor::IMoTraverser {
 public:
  SnmpView(SnmpConfig& config, SnmpProtocolVersion version) : _config(config), _version(version) {}
  bool visit(Vela::MoAccessor& accessor, const std::string& dn) override;

 private:
  SnmpConfig& _config;
  SnmpProtocolVersion _version;
};

/** Hands each alarm object to a visitor. */
class AlarmVisitor : public Vela::MoAccessor::IMoTraverser {
 public:
  explicit AlarmVisitor(MoConnector::ISnmpXmodDataProviderAlarmVisitor& visitor) : _visitor(visitor) {}
  bool visit(Vela::MoAccessor& accessor, const std::string& dn) override;
  /** Whether the last step of each object's name was its id so far. */
  bool areNamedById() const { return _areNamedById; }

 private:
  void takeTimes(AttributeReader& reader);
  void takeAdditionalInfo(AttributeReader& reader);

  MoConnector::ISnmpXmodDataProviderAlarmVisitor& _visitor;
  bool _areNamedById = true;
  SnmpAlarm _alarm; /**< the same for all, so that its texts' memory is used again */
};

}  // namespace VelaFmSnmp
#endif
