#ifndef VELA_FM_SNMP_FM_SNMP_H
#define VELA_FM_SNMP_FM_SNMP_H

#include <Poco/Mutex.h>

#include <list>
#include <memory>
#include <string>

#include "CmEventConsumer.h"
#include "Enduring.h"
#include "EventConsumer.h"
#include "MoConnector.h"
#include "PipeMessage.h"
#include "SnmpAdaptorRunnable.h"
#include "ThreadWPipes.h"
#include "VelaMgmtSpi.h"
#include "VelaOamApiFm.h"

namespace VelaFmSnmp {

class SnmpConfigHandler;

/**
 * The component that the framework registers, starts and stops. It owns the adaptor and its thread, and turns every
 * event of the framework into a message to that thread. One per process.
 *
 * start and stop are for the framework's life-cycle thread, the on... handlers for its event threads: they return
 * without waiting for anything. The access point subscriptions are started by the adaptor thread.
 */
class FmSnmp : public MoConnector::OamAccessPointHandler::Subscriptions {
 public:
  static FmSnmp& getInstance();
  FmSnmp(const FmSnmp&) = delete;
  FmSnmp& operator=(const FmSnmp&) = delete;

  /** The description for the portal; lives as long as the process. */
  const VelaMgmtSpiComponent_1T* getComponent() const { return &_component; }
  /** The static settings; not owned, outlives the component's runs. */
  void setConfigurationHandler(SnmpConfigHandler* handler);
  /** Null before the configuration was loaded. */
  SnmpConfigHandler* getConfigurationHandler() const { return _configurationHandler; }
  SnmpAdaptorRunnable& getAdaptor() { return _adaptor; }
  /** The adaptor's thread, whose input takes the messages. */
  Vela::ThreadWPipes& getAdaptorThread() { return _thread; }

  /** 0, or -1 after a log line. Refused, with nothing touched, while the thread of an earlier run lives. */
  VelaReturnT start(VelaStateChangeReason reason);
  /** Waits at most 20 seconds for the adaptor thread; always 0. */
  VelaReturnT stop(VelaStateChangeReason reason);

  void startSubscriptionsOnOamAccessPointMoRefs(const std::list<std::string>& dnExpressions) override;
  void stopSubscriptionsOnOamAccessPointMoRefs() override;
  void startTemporarySubscriptionsOnOamAccessPointMoRefs(const std::list<std::string>& dnExpressions) override;
  void stopTemporarySubscriptionsOnOamAccessPointMoRefs() override;

  void onHeartbeat(const char* eventType, const void* eventValue);
  void onFmEvent(const char* eventType, const void* eventValue);
  void onAlarmListRebuilt(const char* eventType, const void* eventValue);
  void onSnmpMoChange(const DaxOamSpiCmEvent_Notification_1T& notification);
  void onTlsMoChange(const DaxOamSpiCmEvent_Notification_1T& notification);
  void onDiffServCategoryMoChangeNotification(const DaxOamSpiCmEvent_Notification_1T& notification);
  void onOamAccessPointMoChange(const DaxOamSpiCmEvent_Notification_1T& notification);
  void onOamAccessPointMoRefsMoChange(const DaxOamSpiCmEvent_Notification_1T& notification);

  bool onlyOperationalStateChanged(const DaxOamSpiCmEvent_Notification_1T& notification) const;
  bool isAddressAttributeChanged(const DaxOamSpiCmEvent_Notification_1T& notification) const;

 private:
  friend class Vela::Enduring<FmSnmp>;
  FmSnmp();
  ~FmSnmp() override = default;

  void startSubscriptions();
  void prepareAdaptor();
  void push(std::unique_ptr<Vela::PipeMessage> message) { _thread.pushToInput(std::move(message)); }

  VelaMgmtSpiComponent_1T _component;
  SnmpConfigHandler* _configurationHandler = nullptr;
  SnmpAdaptorRunnable _adaptor;
  Vela::ThreadWPipes _thread;

  Vela::CmEventConsumer<FmSnmp, 1> _snmpMoConsumer;
  Vela::CmEventConsumer<FmSnmp, 2> _tlsMoConsumer;
  Vela::CmEventConsumer<FmSnmp, 3> _diffServCategoryMoConsumer;
  Vela::CmEventConsumer<FmSnmp, 4> _oamAccessPointMoConsumer;
  Vela::CmEventConsumer<FmSnmp, 5> _oamAccessPointMoRefsConsumer;
  Vela::CmEventConsumer<FmSnmp, 6> _temporaryOamAccessPointMoRefsConsumer;
  Vela::EventConsumer<FmSnmp, 1> _heartbeatConsumer;
  Vela::EventConsumer<FmSnmp, 2> _fmEventConsumer;
  Vela::EventConsumer<FmSnmp, 3> _alarmListRebuiltConsumer;

  Poco::FastMutex _accessPointMutex; /**< the adaptor thread and stop meet at consumers 5 and 6 */
  bool _accessPointsWatched = false; /**< between start and stop */
};

}  // namespace VelaFmSnmp
#endif
