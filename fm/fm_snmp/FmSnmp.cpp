#include "FmSnmp.h"

#include <Poco/RegularExpression.h>
#include <Poco/ScopedLock.h>

#include <cstring>
#include <ctime>
#include <utility>

#include "Enduring.h"
#include "FmSnmpCM.h"
#include "LoggingWrapper.h"
#include "MoAccessor.h"
#include "SnmpAlarmSnapshot.h"
#include "SnmpConfigHandler.h"
#include "SnmpMessages.h"
#include "SnmpTypes.h"
#include "VelaException.h"
#include "VelaMwSpiLog.h"
#include "VelaOamSpiEventRouter.h"

namespace VelaFmSnmp {

namespace {

constexpr const char* SnmpExpression = "^ManagedElement=.*,SystemFunctions=1,SysM=1,Snmp=.*$";
constexpr const char* TlsExpression = "^ManagedElement=.*,SystemFunctions=.*,SecM=.*,Tls=.*$";
constexpr const char* OamAccessPointExpression = "^ManagedElement=.*,SystemFunctions=1,SysM=1,OamAccessPoint=.*$";
constexpr const char* DiffServExpressions[] = {"^ManagedElement=.*,Transport=.*,DiffServCategory=OamCM$",
                                               "^ManagedElement=.*,Transport=.*,DiffServCategory=OamFM$"};
constexpr const char* DiffServDnExpression = ".*(OamCM|OamFM)$";

constexpr const char* FmClassPath = "ManagedElement,SystemFunctions,Fm";
constexpr const char* SnmpClassPath = "ManagedElement,SystemFunctions,SysM,Snmp";
constexpr unsigned AccessorTimeout = 60;  /**< seconds */
constexpr long AdaptorEndTimeout = 20000; /**< milliseconds */
/** Milliseconds in which a thread that is done gets out of its last steps. */
constexpr long EndedThreadTimeout = 500;

constexpr const char* ComponentName = "VelaFmSnmp";
constexpr VelaMgmtSpiInterface_1 OwnInterface = {nullptr, "VelaMgmtSpiComponent", "1"};
constexpr const VelaMgmtSpiInterface_1* Offered[] = {nullptr};
constexpr VelaMgmtSpiInterface_1 LogInterface = {nullptr, VELA_LOG_INTERFACE, VELA_LOG_VERSION};
constexpr VelaMgmtSpiInterface_1 TraceInterface = {nullptr, DAX_TRACE_INTERFACE, nullptr};
constexpr VelaMgmtSpiInterface_1 EventRouterInterface = {VELA_EVENT_ROUTER_COMPONENT, VELA_EVENT_ROUTER_INTERFACE,
                                                         VELA_EVENT_ROUTER_VERSION};
constexpr VelaMgmtSpiInterface_1 ManagedObjectInterface = {VELA_MO_COMPONENT, VELA_MO_INTERFACE, VELA_MO_VERSION};
constexpr const VelaMgmtSpiInterface_1* Dependencies[] = {&LogInterface, &TraceInterface, &EventRouterInterface,
                                                          &ManagedObjectInterface, nullptr};

/** Serialises the deliveries of DiffServ category changes. */
Poco::FastMutex _snmpNotificationMutex;

VelaReturnT startComponent(VelaStateChangeReason reason) { return FmSnmp::getInstance().start(reason); }
VelaReturnT stopComponent(VelaStateChangeReason reason) { return FmSnmp::getInstance().stop(reason); }

bool isInformTimeoutWorkaroundEnabled() {
  const SnmpConfigHandler* handler = FmSnmp::getInstance().getConfigurationHandler();
  return handler && handler->isInformTimeoutWorkaroundEnabled();
}

bool isMissing(const char* eventType, const void* eventValue) {
  if (!eventValue) VELA_LOG(Vela::LogWarning, "Event %s without a value is ignored", eventType);
  return !eventValue;
}

bool isCreatedOrDeleted(const DaxOamSpiCmEvent_Event_1T& event) {
  return event.eventType == DAX_CM_EVENT_CREATED || event.eventType == DAX_CM_EVENT_DELETED;
}

/** Whether a test holds for the name of any attribute that has one. */
template <class Test>
bool anyAttributeName(const DaxOamSpiCmEvent_Event_1T& event, Test&& test) {
  for (const DaxOamSpiCmEvent_Attribute_1T* const* attribute = event.attributes; *attribute; ++attribute) {
    if ((*attribute)->name && test((*attribute)->name)) return true;
  }
  return false;
}

}  // namespace

FmSnmp& FmSnmp::getInstance() {
  // Made first, so that they are destroyed last: the adaptor uses the configuration and the snapshot until its end.
  FmSnmpCM::getInstance();
  SnmpAlarmSnapshot::getInstance();
  static const Vela::Enduring<FmSnmp> instance;
  return *instance;
}

FmSnmp::FmSnmp()
    : _component{ComponentName, OwnInterface, Offered, Dependencies, startComponent, stopComponent},
      _adaptor(_thread),
      _thread("FmSnmpAdaptor") {}

void FmSnmp::setConfigurationHandler(SnmpConfigHandler* handler) {
  _configurationHandler = handler;
  SnmpBaseTarget::setInformTimeoutWorkaround(&isInformTimeoutWorkaroundEnabled);
}

VelaReturnT FmSnmp::start(VelaStateChangeReason reason) {
  VELA_TRACE(" >> Reason: %d", static_cast<int>(reason));
  tzset();
  VELA_LOG(Vela::LogInfo, "Starting Fm Snmp Component, reason: %d", static_cast<int>(reason));
  VelaReturnT result = VELA_OK;
  try {
    if (!_thread.join(EndedThreadTimeout)) {
      throw Vela::VelaException("the adaptor thread of the previous run has not ended");
    }
    startSubscriptions();
    prepareAdaptor();
    _thread.start(_adaptor);
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "Caught exception during Fm Snmp Component start: %s.", ex.what());
    result = -1;
  }
  VELA_TRACE(" << Retval: %d", result);
  return result;
}

void FmSnmp::startSubscriptions() {
  _snmpMoConsumer.start({SnmpExpression}, &FmSnmp::onSnmpMoChange, this);
  _tlsMoConsumer.start({TlsExpression}, &FmSnmp::onTlsMoChange, this);
  _oamAccessPointMoConsumer.start({OamAccessPointExpression}, &FmSnmp::onOamAccessPointMoChange, this);
  _diffServCategoryMoConsumer.start({std::begin(DiffServExpressions), std::end(DiffServExpressions)},
                                    &FmSnmp::onDiffServCategoryMoChangeNotification, this);
  _heartbeatConsumer.start(VELA_FM_HEARTBEAT_EVENT, {}, &FmSnmp::onHeartbeat, this);
  _fmEventConsumer.start(VELA_FM_NOTIFICATION_EVENT, {}, &FmSnmp::onFmEvent, this);
  _alarmListRebuiltConsumer.start(VELA_FM_ALARM_LIST_REBUILT_EVENT, {}, &FmSnmp::onAlarmListRebuilt, this);
}

void FmSnmp::prepareAdaptor() {
  Vela::MoAccessor accessor(VELA_MO_LOCK_ON_WRITE, AccessorTimeout);
  const std::string fmBaseDn = accessor.getFirstMoInstance(FmClassPath);
  VELA_TRACE("Got first FM instance: %s.", fmBaseDn.c_str());
  _adaptor.setFmBaseDn(fmBaseDn);
  const std::string snmpBaseDn = accessor.getFirstMoInstance(SnmpClassPath);
  VELA_TRACE("Got first Snmp instance: %s.", snmpBaseDn.c_str());
  _adaptor.setSnmpBaseDn(snmpBaseDn);
  accessor.abort();

  _adaptor.setConfigurationHandler(_configurationHandler);
  _adaptor.prepareForStart(&FmSnmpCM::getInstance().getPortal());
  {
    Poco::ScopedLock<Poco::FastMutex> lock(_accessPointMutex);
    _accessPointsWatched = true;
  }
  _adaptor.getMoConnector().setSubscriptions(this);
}

VelaReturnT FmSnmp::stop(VelaStateChangeReason reason) {
  VELA_TRACE(" >> Reason: %d", static_cast<int>(reason));
  _snmpMoConsumer.stop();
  _tlsMoConsumer.stop();
  _diffServCategoryMoConsumer.stop();
  _heartbeatConsumer.stop();
  _fmEventConsumer.stop();
  _alarmListRebuiltConsumer.stop();
  _oamAccessPointMoConsumer.stop();
  {
    Poco::ScopedLock<Poco::FastMutex> lock(_accessPointMutex);
    _accessPointsWatched = false;
  }
  stopSubscriptionsOnOamAccessPointMoRefs();

  if (_adaptor.isRunning()) {
    VELA_LOG(Vela::LogInfo, "stopping snmpAdaptorThread ...");
    _adaptor.stop();
    if (_thread.join(AdaptorEndTimeout)) {
      VELA_LOG(Vela::LogInfo, "successfully stopped snmpAdaptorThread");
    } else {
      VELA_LOG(Vela::LogError, "Timeout while waiting for snmpAdaptorThread");
    }
  }
  VELA_TRACE(" << Retval: %d", VELA_OK);
  return VELA_OK;
}

// --- Subscriptions on what the access points refer to --------------------------------------------------------------

void FmSnmp::startSubscriptionsOnOamAccessPointMoRefs(const std::list<std::string>& dnExpressions) {
  Poco::ScopedLock<Poco::FastMutex> lock(_accessPointMutex);
  if (dnExpressions.empty() || !_accessPointsWatched) return;
  _oamAccessPointMoRefsConsumer.start(dnExpressions, &FmSnmp::onOamAccessPointMoRefsMoChange, this);
}

void FmSnmp::stopSubscriptionsOnOamAccessPointMoRefs() {
  Poco::ScopedLock<Poco::FastMutex> lock(_accessPointMutex);
  _oamAccessPointMoRefsConsumer.stop();
}

void FmSnmp::startTemporarySubscriptionsOnOamAccessPointMoRefs(const std::list<std::string>& dnExpressions) {
  Poco::ScopedLock<Poco::FastMutex> lock(_accessPointMutex);
  if (dnExpressions.empty() || !_accessPointsWatched) return;
  _temporaryOamAccessPointMoRefsConsumer.start(dnExpressions, &FmSnmp::onOamAccessPointMoRefsMoChange, this);
}

void FmSnmp::stopTemporarySubscriptionsOnOamAccessPointMoRefs() {
  Poco::ScopedLock<Poco::FastMutex> lock(_accessPointMutex);
  _temporaryOamAccessPointMoRefsConsumer.stop();
}

// --- Fault-management events ---------------------------------------------------------------------------------------

void FmSnmp::onHeartbeat(const char* eventType, const void* eventValue) {
  if (isMissing(eventType, eventValue)) return;
  const SnmpHeartbeat heartbeat(*static_cast<const VelaOamApiFmHeartbeatEventValue_4T*>(eventValue));
  push(std::make_unique<SnmpHeartbeatMessage>(heartbeat));
}

void FmSnmp::onFmEvent(const char* eventType, const void* eventValue) {
  if (isMissing(eventType, eventValue)) return;
  const auto& event = *static_cast<const VelaOamApiFmNotificationEventValue_4T*>(eventValue);
  push(std::make_unique<SnmpAlarmMessage>(event));
}

void FmSnmp::onAlarmListRebuilt(const char*, const void*) { push(std::make_unique<SnmpAlarmListRebuiltMessage>()); }

// --- Configuration changes -----------------------------------------------------------------------------------------

bool FmSnmp::onlyOperationalStateChanged(const DaxOamSpiCmEvent_Notification_1T& notification) const {
  if (!notification.events) return true;
  for (const DaxOamSpiCmEvent_Event_1T* const* event = notification.events; *event; ++event) {
    if (isCreatedOrDeleted(**event) || !(*event)->attributes) return false;
    if (anyAttributeName(**event, [](const char* name) { return std::strcmp(name, "operationalState") != 0; })) {
      return false;
    }
  }
  return true;
}

bool FmSnmp::isAddressAttributeChanged(const DaxOamSpiCmEvent_Notification_1T& notification) const {
  if (!notification.events) return false;
  for (const DaxOamSpiCmEvent_Event_1T* const* event = notification.events; *event; ++event) {
    if (isCreatedOrDeleted(**event) || !(*event)->attributes) return false;
    if (anyAttributeName(**event, [](const char* name) { return std::strcmp(name, "address") == 0; })) return true;
  }
  return false;
}

void FmSnmp::onSnmpMoChange(const DaxOamSpiCmEvent_Notification_1T& notification) {
  if (onlyOperationalStateChanged(notification)) {
    VELA_TRACE("Only operationalState updated, event not handled");
    return;
  }
  push(std::make_unique<CmEventMessage>(notification));
}

void FmSnmp::onTlsMoChange(const DaxOamSpiCmEvent_Notification_1T&) { _adaptor.reconfigureSnmpMaster(); }

void FmSnmp::onDiffServCategoryMoChangeNotification(const DaxOamSpiCmEvent_Notification_1T& notification) {
  Poco::ScopedLock<Poco::FastMutex> lock(_snmpNotificationMutex);
  if (!notification.events) return;
  const Poco::RegularExpression expression(DiffServDnExpression);
  for (const DaxOamSpiCmEvent_Event_1T* const* event = notification.events; *event; ++event) {
    const int type = (*event)->eventType;
    if (type != DAX_CM_EVENT_MODIFIED) continue;
    const char* dn = (*event)->dn;
    if (!dn) {
      VELA_TRACE("CM Event type, %d received with NULL dn value", type);
    } else if (expression.match(dn)) {
      push(std::make_unique<CmEventMessage>(notification));
    } else {
      VELA_TRACE("CM Event type, %d received with incorrect dn value - %s", type, dn);
    }
  }
}

void FmSnmp::onOamAccessPointMoChange(const DaxOamSpiCmEvent_Notification_1T& notification) {
  push(std::make_unique<CmEventMessage>(notification));
}

void FmSnmp::onOamAccessPointMoRefsMoChange(const DaxOamSpiCmEvent_Notification_1T& notification) {
  if (isAddressAttributeChanged(notification)) push(std::make_unique<CmEventMessage>(notification));
}

}  // namespace VelaFmSnmp
