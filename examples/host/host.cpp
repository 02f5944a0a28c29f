// The smallest host of the component: a portal, a log, an event router and a model of its own, in one file. It loads
// the component, starts it, raises one alarm, and stops it at SIGINT or SIGTERM. docs/integration.md tells what each
// call means and on which thread it comes.
//
//   example_host CONFIGURATION AGENT_PORT RECEIVER_PORT
//
// In the environment: a `tarn` in PATH that runs the master agent (docs/integration.md), and whatever that tool wants.

#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "DaxOamSpiCmEvent.h"
#include "VelaComponent.h"
#include "VelaMgmtSpi.h"
#include "VelaMwSpiLog.h"
#include "VelaOamApiFm.h"
#include "VelaOamSpiEventRouter.h"
#include "VelaOamSpiManagedObject.h"

namespace {

// ---- The model: objects by distinguished name, each with attributes that do not change once they are made. ----------

struct Value {
  VelaOamSpiMoTypeT type = VELA_MO_STRING;
  std::int64_t number = 0;
  std::string text;
  std::vector<std::pair<std::string, Value>> members;
};

Value text(std::string value) { return {VELA_MO_STRING, 0, std::move(value), {}}; }
Value number(VelaOamSpiMoTypeT type, std::int64_t value) { return {type, value, "", {}}; }

/** An attribute in the form of the C interface, which points into it. */
class Attribute {
 public:
  Attribute(std::string name, bool isSequence, bool isSet, std::vector<Value> values)
      : _name(std::move(name)), _values(std::move(values)) {
    _members.reserve(_values.size());
    for (const Value& value : _values) _forms.push_back(formOf(value));
    _form = {_name.c_str(), isSequence, isSet, _forms.data(), _forms.size()};
  }
  Attribute(const Attribute&) = delete;
  const VelaOamSpiMoAttribute_3T& form() const { return _form; }

 private:
  VelaOamSpiMoValue_3T formOf(const Value& value) {
    VelaOamSpiMoValue_3T form{value.type,         value.number, static_cast<std::uint64_t>(value.number),
                              value.text.c_str(), nullptr,      0};
    if (value.members.empty()) return form;
    std::vector<VelaOamSpiMoMember_3T> members;
    for (const auto& [name, member] : value.members) members.push_back({name.c_str(), true, formOf(member)});
    _members.push_back(std::move(members));
    form.members = _members.back().data();
    form.memberCount = _members.back().size();
    return form;
  }

  std::string _name;
  std::vector<Value> _values;
  std::vector<std::vector<VelaOamSpiMoMember_3T>> _members;
  std::vector<VelaOamSpiMoValue_3T> _forms;
  VelaOamSpiMoAttribute_3T _form{};
};

struct Object {
  std::string className;
  std::map<std::string, std::shared_ptr<const Attribute>> attributes;

  void set(const char* name, Value value) { put(name, false, {std::move(value)}); }
  void setSequence(const char* name, std::vector<Value> values) { put(name, true, std::move(values)); }

 private:
  void put(const char* name, bool isSequence, std::vector<Value> values) {
    attributes[name] = std::make_shared<const Attribute>(name, isSequence, true, std::move(values));
  }
};

std::recursive_mutex modelMutex;  // a visitor of a walk may ask for more
std::map<std::string, Object> model;
std::map<VelaOamSpiMoTransactionT, std::map<std::string, Object>> transactions;  // what each has written
VelaOamSpiMoTransactionT lastTransaction = 0;
std::string foundDn;

const Object* find(VelaOamSpiMoTransactionT transaction, const std::string& dn) {
  const auto& written = transactions[transaction];
  if (const auto own = written.find(dn); own != written.end()) return &own->second;
  const auto found = model.find(dn);
  return found == model.end() ? nullptr : &found->second;
}

VelaReturnT beginTransaction(std::int32_t, std::uint32_t, VelaOamSpiMoTransactionT* transaction) {
  const std::lock_guard lock(modelMutex);
  transactions[*transaction = ++lastTransaction];
  return VELA_OK;
}
VelaReturnT commit(VelaOamSpiMoTransactionT transaction) {
  const std::lock_guard lock(modelMutex);
  for (auto& [dn, object] : transactions[transaction]) {
    for (const char* name : {"operationalState", "heartbeatInterval"}) {
      const auto attribute = object.attributes.find(name);
      if (attribute == object.attributes.end() || attribute->second->form().valueCount == 0) continue;
      std::printf("%s: %s is %lld\n", dn.c_str(), name,
                  static_cast<long long>(attribute->second->form().values[0].i64));
      std::fflush(stdout);
    }
    model[dn] = std::move(object);
  }
  transactions.erase(transaction);
  return VELA_OK;
}
VelaReturnT abortTransaction(VelaOamSpiMoTransactionT transaction) {
  const std::lock_guard lock(modelMutex);
  return transactions.erase(transaction) > 0 ? VELA_OK : VELA_INVALID;
}
const char* getErrorText() { return "see the return code"; }

/** The class of each step of a name's path: "A=1,B=2" has "A,B". */
std::string classPathOf(const std::string& dn) {
  std::string path;
  bool inValue = false;
  for (const char letter : dn) {
    if (letter == '=') inValue = true;
    if (letter == ',') inValue = false;
    if (!inValue) path += letter;
  }
  return path;
}

VelaReturnT getFirstInstance(VelaOamSpiMoTransactionT, const char* classPath, const char** dn) {
  const std::lock_guard lock(modelMutex);
  for (const auto& entry : model) {
    if (classPathOf(entry.first) != classPath) continue;
    *dn = (foundDn = entry.first).c_str();
    return VELA_OK;
  }
  return VELA_NOT_FOUND;
}

VelaReturnT traverseChildren(VelaOamSpiMoTransactionT transaction, const char* parentDn, const char* className,
                             VelaOamSpiMoVisitorT visitor, void* context) {
  const std::lock_guard lock(modelMutex);
  const std::string prefix = std::string(parentDn) + ",";
  if (!find(transaction, parentDn)) return VELA_NOT_FOUND;
  const std::map<std::string, Object> seen = model;  // the walk sees the moment of the call
  for (auto entry = seen.lower_bound(prefix); entry != seen.end() && entry->first.rfind(prefix, 0) == 0; ++entry) {
    if (entry->first.find(',', prefix.size()) != std::string::npos) continue;  // a grandchild
    if (className && entry->second.className != className) continue;
    if (!visitor(context, entry->first.c_str(), reinterpret_cast<const VelaOamSpiMoObjectT*>(&entry->second))) break;
  }
  return VELA_OK;
}

VelaReturnT openObject(VelaOamSpiMoTransactionT transaction, const char* dn, const VelaOamSpiMoObjectT** opened) {
  const std::lock_guard lock(modelMutex);
  const Object* object = find(transaction, dn);
  if (!object) return VELA_NOT_FOUND;
  *opened = reinterpret_cast<const VelaOamSpiMoObjectT*>(new Object(*object));  // as it was when opened
  return VELA_OK;
}
void closeObject(const VelaOamSpiMoObjectT* object) { delete reinterpret_cast<const Object*>(object); }
const char* getClassName(const VelaOamSpiMoObjectT* object) {
  return reinterpret_cast<const Object*>(object)->className.c_str();
}
VelaReturnT getAttribute(const VelaOamSpiMoObjectT* opened, const char* name, const VelaOamSpiMoAttribute_3T** found) {
  static const Attribute unset("", false, false, {});
  const auto& attributes = reinterpret_cast<const Object*>(opened)->attributes;
  const auto attribute = attributes.find(name);
  // What this model says nothing about has no value, and the component takes its default.
  *found = attribute == attributes.end() ? &unset.form() : &attribute->second->form();
  return VELA_OK;
}
VelaReturnT setAttribute(VelaOamSpiMoTransactionT transaction, const char* dn, const VelaOamSpiMoAttribute_3T* given) {
  const std::lock_guard lock(modelMutex);
  const Object* object = find(transaction, dn);
  if (!object) return VELA_NOT_FOUND;
  Object changed = *object;
  if (given->valueCount == 1 && given->values[0].type != VELA_MO_STRUCT) {
    const VelaOamSpiMoValue_3T& value = given->values[0];
    const bool isUnsigned =
        value.type == VELA_MO_UINT16 || value.type == VELA_MO_UINT32 || value.type == VELA_MO_UINT64;
    changed.set(
        given->name,
        {value.type, isUnsigned ? static_cast<std::int64_t>(value.u64) : value.i64, value.text ? value.text : "", {}});
  }
  transactions[transaction][dn] = std::move(changed);
  return VELA_OK;
}
VelaReturnT refuse(VelaOamSpiMoTransactionT, const char*) { return VELA_INVALID; }  // the component makes no objects

const VelaOamSpiManagedObject_3T objects = {beginTransaction,
                                            commit,
                                            abortTransaction,
                                            getErrorText,
                                            getFirstInstance,
                                            traverseChildren,
                                            openObject,
                                            closeObject,
                                            getClassName,
                                            getAttribute,
                                            setAttribute,
                                            refuse,
                                            refuse};

// ---- The event router: each event goes to whom subscribed to its type.
// ------------------------------------------------

struct Consumer {
  const VelaOamSpiEventConsumer_1T* callbacks;
  std::map<std::uint32_t, std::string> subscriptions;
};
std::mutex routerMutex;
std::map<std::uint32_t, Consumer> consumers;
std::uint32_t lastId = 0;

VelaReturnT registerConsumer(const VelaOamSpiEventConsumer_1T* callbacks, std::uint32_t* id) {
  const std::lock_guard lock(routerMutex);
  consumers[*id = ++lastId] = {callbacks, {}};
  return VELA_OK;
}
VelaReturnT unregisterConsumer(std::uint32_t id) {
  const std::lock_guard lock(routerMutex);
  return consumers.erase(id) > 0 ? VELA_OK : VELA_NOT_FOUND;
}
VelaReturnT addSubscription(std::uint32_t id, const char* type, const VelaOamSpiEventFilter_1T* const*,
                            std::uint32_t* subscription) {
  const std::lock_guard lock(routerMutex);  // this host emits FM events only, which no filter concerns
  consumers[id].subscriptions[*subscription = ++lastId] = type;
  return VELA_OK;
}
VelaReturnT removeSubscription(std::uint32_t id, std::uint32_t subscription) {
  const std::lock_guard lock(routerMutex);
  return consumers[id].subscriptions.erase(subscription) > 0 ? VELA_OK : VELA_NOT_FOUND;
}
void emit(const char* type, const void* value) {
  const std::lock_guard lock(routerMutex);  // unregisterConsumer has to wait for a callback that runs
  for (const auto& [id, consumer] : consumers) {
    for (const auto& subscription : consumer.subscriptions) {
      if (subscription.second == type) consumer.callbacks->notify(type, value);
    }
  }
}
const VelaOamSpiEventRouter_1T router = {registerConsumer, unregisterConsumer, addSubscription, removeSubscription};

// ---- Log and portal.
// ----------------------------------------------------------------------------------------------------

void writeLog(std::int32_t severity, const char*, const char* function, const char* line) {
  std::fprintf(stderr, "%d %s: %s\n", severity, function, line);
}
std::int32_t getLevel() { return 6; }
void writeTrace(const char*, const char*, const char*) {}
const VelaMwSpiLog_1T logService = {writeLog, getLevel};
const DaxMwSpiTraceT traceService = {writeTrace};

const VelaMgmtSpiComponent_1T* component = nullptr;

const char* version() { return "1"; }
const char* hostName() { return "example_host"; }
const char* hostDirectory() { return "/tmp"; }
VelaReturnT getInterface(const char*, const char* name, const char*, void** table) {
  const std::map<std::string, const void*> offered = {{VELA_LOG_INTERFACE, &logService},
                                                      {DAX_TRACE_INTERFACE, &traceService},
                                                      {VELA_EVENT_ROUTER_INTERFACE, &router},
                                                      {VELA_MO_INTERFACE, &objects}};
  const auto found = name ? offered.find(name) : offered.end();
  if (found == offered.end()) return VELA_NOT_FOUND;
  *table = const_cast<void*>(found->second);
  return VELA_OK;
}
VelaReturnT releaseInterface(void*) { return VELA_OK; }
VelaReturnT registerComponent(const VelaMgmtSpiComponent_1T* description) {
  component = description;
  return VELA_OK;
}
VelaReturnT unregisterComponent(const VelaMgmtSpiComponent_1T*) {
  component = nullptr;
  return VELA_OK;
}
VelaMgmtSpiInterfacePortal_1T portal = {version,          hostName,          hostDirectory,      getInterface,
                                        releaseInterface, registerComponent, unregisterComponent};
VelaMgmtSpiInterfacePortal_1T* getPortal(const char* wanted) {
  return wanted && std::strcmp(wanted, "1") == 0 ? &portal : nullptr;
}
VelaMgmtSpiInterfacePortalAccessor accessor = {getPortal};

// ---- What this host has: an agent address, a receiver, and one alarm.
// ---------------------------------------------------

const std::string fmDn = "ManagedElement=1,SystemFunctions=1,Fm=1";
const std::string snmpDn = "ManagedElement=1,SystemFunctions=1,SysM=1,Snmp=1";

void fillModel(int agentPort, int receiverPort) {
  for (const char* dn :
       {"ManagedElement=1", "ManagedElement=1,SystemFunctions=1", "ManagedElement=1,SystemFunctions=1,SysM=1",
        "ManagedElement=1,SystemFunctions=1,SecM=1", "ManagedElement=1,Transport=1"}) {
    const std::string name = dn;
    model[name].className = name.substr(name.rfind(',') + 1, name.rfind('=') - name.rfind(',') - 1);
  }
  Object& fm = model[fmDn];
  fm.className = "Fm";
  fm.set("heartbeatInterval", number(VELA_MO_UINT32, 60));
  for (const char* sum : {"sumCritical", "sumMinor", "sumWarning"}) fm.set(sum, number(VELA_MO_UINT32, 0));
  for (const char* sum : {"sumMajor", "totalActive"}) fm.set(sum, number(VELA_MO_UINT32, 1));
  fm.set("lastSequenceNo", number(VELA_MO_UINT64, 1));
  fm.set("lastChanged", text("2026-01-01T00:00:00.000000Z"));

  Object& snmp = model[snmpDn];
  snmp.className = "Snmp";
  snmp.set("administrativeState", number(VELA_MO_ENUM, 1));
  snmp.set("operationalState", number(VELA_MO_ENUM, 0));
  snmp.setSequence(
      "agentAddress",
      {{VELA_MO_STRUCT, 0, "", {{"host", text("127.0.0.1")}, {"port", number(VELA_MO_UINT32, agentPort)}}}});
  snmp.setSequence("agentAddressDtls", {});

  Object& target = model[snmpDn + ",SnmpTargetV2C=nms"];
  target.className = "SnmpTargetV2C";
  target.set("administrativeState", number(VELA_MO_ENUM, 1));
  target.set("operationalState", number(VELA_MO_ENUM, 0));
  target.set("address", text("127.0.0.1"));
  target.set("port", number(VELA_MO_UINT32, receiverPort));
  target.set("community", text("public"));

  Object& tls = model["ManagedElement=1,SystemFunctions=1,SecM=1,Tls=1"];
  tls.className = "Tls";
  tls.setSequence("trustCategory", {});

  Object& alarm = model[fmDn + ",FmAlarm=1"];
  alarm.className = "FmAlarm";
  for (const char* name : {"fmAlarmId", "majorType", "minorType", "eventType"})
    alarm.set(name, number(VELA_MO_UINT32, 1));
  alarm.set("probableCause", number(VELA_MO_UINT32, 418));
  for (const char* name : {"activeSeverity", "originalSeverity"}) alarm.set(name, number(VELA_MO_INT16, 4));
  for (const char* name : {"lastEventTime", "originalEventTime"}) alarm.set(name, text("2026-01-01T00:00:00.000000Z"));
  for (const char* name : {"additionalText", "originalAdditionalText"}) alarm.set(name, text("Raised by the example"));
  alarm.set("specificProblem", text("Example"));
  alarm.set("source", text("ManagedElement=1"));
  alarm.setSequence("additionalInfo", {});
}

void raiseAlarm() {
  DaxOamSpiNotificationFmT notification{};
  notification.dn = "ManagedElement=1";
  notification.majorType = notification.minorType = 1;
  notification.eventTime = static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count());
  notification.additionalText = "Raised by the example";
  notification.severity = 4;
  VelaOamApiFmNotificationEventValue_4T event{};
  event.notification = &notification;
  event.stateful = true;
  event.sequenceNumber = 1;
  event.eventType = 1;
  event.probableCause = 418;
  event.specificProblem = "Example";
  event.index = 1;
  event.originalEventTime = notification.eventTime;
  event.originalAdditionalText = notification.additionalText;
  event.originalSeverity = notification.severity;
  emit(VELA_FM_NOTIFICATION_EVENT, &event);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s CONFIGURATION AGENT_PORT RECEIVER_PORT\n", argv[0]);
    return 2;
  }
  fillModel(std::atoi(argv[2]), std::atoi(argv[3]));

  sigset_t stopSignals;  // blocked before the component makes threads, which inherit it
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  // Never closed again: see docs/integration.md.
  void* library = dlopen(COMPONENT_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  const auto init = reinterpret_cast<VelaComponentInitT>(dlsym(library, VELA_COMPONENT_INIT));
  const auto terminate = reinterpret_cast<VelaComponentTerminateT>(dlsym(library, VELA_COMPONENT_TERMINATE));

  int status = 1;
  if (init && terminate && init(&accessor, argv[1]) == VELA_OK &&
      component->start(VelaStateChangeActivate) == VELA_OK) {
    raiseAlarm();
    int signal = 0;
    sigwait(&stopSignals, &signal);
    status = component->stop(VelaStateChangeDeactivate) == VELA_OK ? 0 : 1;
  }
  if (terminate) terminate();
  return status;
}
