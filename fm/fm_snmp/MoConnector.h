#ifndef VELA_FM_SNMP_MO_CONNECTOR_H
#define VELA_FM_SNMP_MO_CONNECTOR_H

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "MoAccessor.h"
#include "SnmpTypes.h"
#include "VelaMgmtSpi.h"

namespace VelaFmSnmp {

class SnmpAlarm;

/**
 * The one place where the component reads and writes the node's managed-object model. Used on the adaptor thread; each
 * operation is a transaction of its own. Getters and setters that return int return 0 or the framework's code, after
 * having logged why; they do not throw. The others throw Vela::VelaException.
 */
class MoConnector {
 public:
  /** Receives the alarm list. */
  class ISnmpXmodDataProviderAlarmVisitor {
   public:
    virtual ~ISnmpXmodDataProviderAlarmVisitor() = default;
    virtual void beginAlarms() = 0;
    /** One alarm; it belongs to the caller and is valid during the call only. */
    virtual void replicateAlarm(SnmpAlarm* alarm) = 0;
    /** The list is complete. Not called when reading it failed. */
    virtual void endAlarms() = 0;
  };

  /**
   * Follows the access points that the agent's addresses are taken from.
   *
   * While the addresses are being read, objects that are not subscribed yet are watched by a temporary subscription, so
   * that a change between reading and subscribing is not lost. It stays when the reading fails, since then the change
   * of an address may be what makes the next attempt succeed.
   */
  class OamAccessPointHandler {
   public:
    /** What the component offers to watch address objects, by regular expressions on distinguished names. */
    class Subscriptions {
     public:
      virtual ~Subscriptions() = default;
      virtual void startSubscriptionsOnOamAccessPointMoRefs(const std::list<std::string>& dnExpressions) = 0;
      virtual void stopSubscriptionsOnOamAccessPointMoRefs() = 0;
      virtual void startTemporarySubscriptionsOnOamAccessPointMoRefs(const std::list<std::string>& dnExpressions) = 0;
      virtual void stopTemporarySubscriptionsOnOamAccessPointMoRefs() = 0;
    };

    void setSubscriptions(Subscriptions* subscriptions);
    /** The component starts anew: nothing is subscribed, nothing found. */
    void reset();

    /** Distinguished names of the address objects that the access points refer to, each once, in the model's order. */
    std::list<std::string> getAllAccessPointMorefList(Vela::MoAccessor& accessor) const;
    /** Pairs the hosts of the access points with a port. Empty when no access point gives a host. */
    SnmpConfig::AddressList buildAgentAddressesWithGivenPort(Vela::MoAccessor& accessor, std::uint32_t port);
    /** A new reading of the configuration begins: no reference found yet. */
    void beginReading() { _found.clear(); }
    /** Takes the references found by this reading over as those in use. */
    void setToList() { _inUse = _found; }
    /** Subscribes to the references found by this reading, unless they are the ones in use already. */
    void checkAndRestartSubscriptions();
    /** Ends the temporary subscriptions that a failed reading has left behind. */
    void endTemporaryWatch();

   private:
    void watchTemporarily();

    Subscriptions* _subscriptions = nullptr;
    std::list<std::string> _inUse;     /**< what the subscriptions watch */
    std::list<std::string> _found;     /**< what this reading found */
    std::list<std::string> _temporary; /**< what the temporary subscriptions watch */
  };

  MoConnector();
  virtual ~MoConnector();
  MoConnector(const MoConnector&) = delete;
  MoConnector& operator=(const MoConnector&) = delete;

  /** Looks the base objects up. An object that is not there yet is looked up again when it is needed. */
  virtual void init(VelaMgmtSpiInterfacePortal_1T* portal);
  const std::string& getFmBaseDn() const { return _fmBaseDn; }
  const std::string& getSnmpBaseDn() const { return _snmpBaseDn; }

  /**
   * Replaces the configuration by what the model says; with `dtlsSupported` false its DTLS settings stay empty. A fault
   * in one target or view is logged and concerns that one only. Throws Vela::VelaException when there is no readable
   * SNMP object; the configuration is as it was then.
   */
  virtual void getSnmpConfig(SnmpConfig& config, bool dtlsSupported) const;

  /** Hands every active alarm to the visitor. False, logged, when the list could not be read. */
  virtual bool visit(ISnmpXmodDataProviderAlarmVisitor& visitor);
  /** Hands the alarms of these ids to the visitor's replicateAlarm; adds to `missing` those that have no object under
      the name that follows from the id. False when objects are not named so, as far as the last visit saw, or one could
      not be read; some may have been handed over then. */
  virtual bool visitAlarms(const std::vector<unsigned int>& ids, ISnmpXmodDataProviderAlarmVisitor& visitor,
                           std::vector<unsigned int>& missing);

  virtual int getHeartbeatInterval(unsigned int& seconds) const;
  virtual int getAlarmSumCritical(unsigned int& count) const;
  virtual int getAlarmSumMajor(unsigned int& count) const;
  virtual int getAlarmSumMinor(unsigned int& count) const;
  virtual int getAlarmSumWarning(unsigned int& count) const;
  virtual int getAlarmNumActive(unsigned int& count) const;
  virtual int getAlarmLastSeqenceNo(unsigned long long& number) const;
  /** ISO 8601 text with fraction and zone. */
  virtual int getAlarmLastChanged(std::string& time) const;

  virtual int setHeartbeatInterval(unsigned int seconds);
  /** Writes the SNMP object's engine id, which may be empty. */
  virtual int setEngineId(const std::string& engineId) const;
  /** These two write ENABLED (true) or DISABLED where the model has another value. Throw Vela::VelaException. */
  virtual void setSnmpOperationalState(bool enabled) const;
  virtual void setTargetOperationalState(const char* dn, bool enabled) const;
  /**
   * Writes the states of targets, by distinguished name, and of the service in one transaction, where the model has
   * another value. What cannot be written by itself is logged and left out.
   * @return what failed, one text each; empty: the model has all states
   * @throws Vela::VelaException when nothing was written
   */
  virtual std::vector<std::string> setOperationalStates(const std::map<std::string, bool>& targets, bool service) const;

  /** The component's subscriptions on address objects (null: none); not owned. */
  void setSubscriptions(OamAccessPointHandler::Subscriptions* subscriptions);
  /** There will be no other reading in this run: ends the subscriptions that wait for it. */
  void endTemporarySubscriptions() { _accessPoints.endTemporaryWatch(); }

 private:
  template <class T>
  int getAnyAttribute(const std::string& base, const char* classPath, const char* name, T& value) const;
  template <class T>
  int setAnyAttribute(const std::string& base, const char* classPath, const char* name, const T& value) const;
  template <class T>
  void writeAttribute(const std::string& dn, const char* name, const T& value) const;
  std::string currentBase(const std::string& base, const char* classPath) const;

  std::string _fmBaseDn;
  std::string _snmpBaseDn;
  std::string _nodeBaseDn;
  bool _areAlarmsNamedById = false;            /**< all that the last visit saw */
  mutable OamAccessPointHandler _accessPoints; /**< does not change what the connector answers */
};

}  // namespace VelaFmSnmp
#endif
