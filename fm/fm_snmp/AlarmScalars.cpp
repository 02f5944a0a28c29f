#include "AlarmScalars.h"

#include <cstdint>
#include <exception>
#include <string>

#include "AlarmMibObjects.h"
#include "LoggingWrapper.h"
#include "MoConnector.h"
#include "SnmpUtil.h"

namespace VelaFmSnmp {

namespace {

struct Scalar {
  const AlarmMib::Object& object;
  Netsnmp_Node_Handler* handler;
  int modes = HANDLER_CAN_RONLY;
};

constexpr Scalar scalars[] = {
    {AlarmMib::sumCritical, handle_kavAlarmSumCritical},
    {AlarmMib::sumMajor, handle_kavAlarmSumMajor},
    {AlarmMib::sumMinor, handle_kavAlarmSumMinor},
    {AlarmMib::sumWarning, handle_kavAlarmSumWarning},
    {AlarmMib::sumIndeterminate, handle_kavAlarmSumIndeterminate},
    {AlarmMib::activeNumber, handle_kavAlarmActiveNumber},
    {AlarmMib::activeLastSequenceNo, handle_kavAlarmActiveLastSequenceNo},
    {AlarmMib::alertNumber, handle_kavAlarmAlertNumber},
    {AlarmMib::alertLastSequenceNo, handle_kavAlarmAlertLastSequenceNo},
    {AlarmMib::heartbeatInterval, handle_kavAlarmHbInterval, HANDLER_CAN_RWRITE},
    {AlarmMib::activeTableUrl, handle_kavAlarmActiveTableURL},
    {AlarmMib::activeLastChanged, handle_kavAlarmActiveLastChanged},
    {AlarmMib::alertTableUrl, handle_kavAlarmAlertTableURL},
    {AlarmMib::alertLastChanged, handle_kavAlarmAlertLastChanged},
};

void setUnsigned(netsnmp_request_info* request, unsigned long value) {
  const unsigned long wireValue = value & UINT32_MAX;
  snmp_set_var_typed_value(request->requestvb, ASN_UNSIGNED, &wireValue, sizeof wireValue);
}

void setText(netsnmp_request_info* request, const std::string& text) {
  snmp_set_var_typed_value(request->requestvb, ASN_OCTET_STR, text.data(), text.size());
}

/** Answers the requests of a read-only object; `answer` sets a request's value or returns false if there is none. */
template <class Answer>
int answerGet(netsnmp_agent_request_info* info, netsnmp_request_info* requests, Answer answer) {
  if (info->mode != MODE_GET) return SNMP_ERR_GENERR;
  for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
    if (!answer(request)) netsnmp_set_request_error(info, request, SNMP_NOSUCHINSTANCE);
  }
  return SNMP_ERR_NOERROR;
}

int answerZero(netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return answerGet(info, requests, [](netsnmp_request_info* request) {
    setUnsigned(request, 0);
    return true;
  });
}

int answerEmptyText(netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return answerGet(info, requests, [](netsnmp_request_info* request) {
    setText(request, "");
    return true;
  });
}

/** The agent library is C: no exception may pass through it. */
int guarded(int (AlarmScalars::*handler)(netsnmp_agent_request_info*, netsnmp_request_info*),
            netsnmp_agent_request_info* info, netsnmp_request_info* requests) noexcept {
  try {
    return (AlarmScalars::getInstance().*handler)(info, requests);
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "Failed to answer a request for a scalar: %s", ex.what());
    return SNMP_ERR_GENERR;
  }
}

}  // namespace

AlarmScalars& AlarmScalars::getInstance() {
  static AlarmScalars instance;
  return instance;
}

void AlarmScalars::initHandlers() {
  for (const Scalar& scalar : scalars) {
    const auto& [name, id] = scalar.object;
    netsnmp_handler_registration* const registration =
        netsnmp_create_handler_registration(name, scalar.handler, id.data(), id.size(), scalar.modes);
    if (registration == nullptr || netsnmp_register_scalar(registration) != MIB_REGISTERED_OK)
      VELA_LOG(Vela::LogError, "Could not register %s", name);
  }
  VELA_LOG(Vela::LogInfo, "kavAlarm handlers are initialized");
}

int AlarmScalars::handleSumCritical(netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return answerCount(&MoConnector::getAlarmSumCritical, info, requests);
}

int AlarmScalars::handleSumMajor(netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return answerCount(&MoConnector::getAlarmSumMajor, info, requests);
}

int AlarmScalars::handleSumMinor(netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return answerCount(&MoConnector::getAlarmSumMinor, info, requests);
}

int AlarmScalars::handleSumWarning(netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return answerCount(&MoConnector::getAlarmSumWarning, info, requests);
}

int AlarmScalars::handleActiveNumber(netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return answerCount(&MoConnector::getAlarmNumActive, info, requests);
}

int AlarmScalars::handleActiveLastSequenceNo(netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return answerGet(info, requests, [this](netsnmp_request_info* request) {
    unsigned long long number = 0;
    if (_connector == nullptr || _connector->getAlarmLastSeqenceNo(number) != 0) return false;
    setUnsigned(request, number);
    return true;
  });
}

int AlarmScalars::handleActiveLastChanged(netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return answerLastChanged(info, requests);
}

int AlarmScalars::handleAlertLastChanged(netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return answerLastChanged(info, requests);
}

int AlarmScalars::handleSumIndeterminate(netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return answerZero(info, requests);
}

int AlarmScalars::handleAlertNumber(netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return answerZero(info, requests);
}

int AlarmScalars::handleAlertLastSequenceNo(netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return answerZero(info, requests);
}

int AlarmScalars::handleActiveTableURL(netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return answerEmptyText(info, requests);
}

int AlarmScalars::handleAlertTableURL(netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return answerEmptyText(info, requests);
}

int AlarmScalars::handleHeartbeatInterval(netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
    switch (info->mode) {
      case MODE_SET_RESERVE1:
        checkHeartbeatInterval(info, request);
        break;
      case MODE_SET_ACTION:
        writeHeartbeatInterval(info, request);
        break;
      case MODE_GET:
        readHeartbeatInterval(info, request);
        break;
      default:
        break;
    }
  }
  if (info->mode == MODE_SET_UNDO && _formerInterval) writeFormerInterval();
  if (info->mode == MODE_SET_RESERVE1 || info->mode == MODE_SET_COMMIT || info->mode == MODE_SET_UNDO)
    _formerInterval.reset();
  return SNMP_ERR_NOERROR;
}

void AlarmScalars::checkHeartbeatInterval(netsnmp_agent_request_info* info, netsnmp_request_info* request) {
  if (request->requestvb->type != ASN_UNSIGNED) netsnmp_set_request_error(info, request, SNMP_ERR_WRONGTYPE);
}

void AlarmScalars::writeHeartbeatInterval(netsnmp_agent_request_info* info, netsnmp_request_info* request) {
  const auto interval = static_cast<unsigned int>(*request->requestvb->val.integer);
  VELA_LOG(Vela::LogInfo, "SET of heartbeatInterval, value = %d", static_cast<int>(interval));
  unsigned int former = 0;
  if (!_formerInterval && _connector != nullptr && _connector->getHeartbeatInterval(former) == 0)
    _formerInterval = former;
  if (_connector != nullptr && _connector->setHeartbeatInterval(interval) == 0) return;
  VELA_LOG(Vela::LogError, "Could not set heartbeatInterval.");
  netsnmp_set_request_error(info, request, SNMP_ERR_GENERR);
}

/** Another object of the same SET was refused. */
void AlarmScalars::writeFormerInterval() {
  VELA_LOG(Vela::LogInfo, "SET of heartbeatInterval is undone, value = %d", static_cast<int>(*_formerInterval));
  if (_connector == nullptr || _connector->setHeartbeatInterval(*_formerInterval) != 0)
    VELA_LOG(Vela::LogError, "Could not set heartbeatInterval.");
}

void AlarmScalars::readHeartbeatInterval(netsnmp_agent_request_info* info, netsnmp_request_info* request) {
  unsigned int interval = 0;
  if (_connector == nullptr || _connector->getHeartbeatInterval(interval) != 0) {
    netsnmp_set_request_error(info, request, SNMP_NOSUCHINSTANCE);
    return;
  }
  setUnsigned(request, interval);
  VELA_LOG(Vela::LogDebug, "GET of heartbeatInterval returning %d", static_cast<int>(interval));
}

int AlarmScalars::answerCount(CountReader read, netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return answerGet(info, requests, [this, read](netsnmp_request_info* request) {
    unsigned int count = 0;
    if (_connector == nullptr || (_connector->*read)(count) != 0) return false;
    setUnsigned(request, count);
    return true;
  });
}

/** The model keeps one time of the last change, for alarms and alerts alike. */
int AlarmScalars::answerLastChanged(netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return answerGet(info, requests, [this](netsnmp_request_info* request) {
    std::string time;
    if (_connector == nullptr || _connector->getAlarmLastChanged(time) != 0) return false;
    setText(request, SnmpUtil::getDateAndTime(SnmpUtil::parseTimeStr(time.c_str())));
    return true;
  });
}

#define VELA_SCALAR_HANDLER(object, member)                                                                  \
  int handle_##object(netsnmp_mib_handler*, netsnmp_handler_registration*, netsnmp_agent_request_info* info, \
                      netsnmp_request_info* requests) {                                                      \
    return guarded(&AlarmScalars::member, info, requests);                                                   \
  }

VELA_SCALAR_HANDLER(kavAlarmSumCritical, handleSumCritical)
VELA_SCALAR_HANDLER(kavAlarmSumMajor, handleSumMajor)
VELA_SCALAR_HANDLER(kavAlarmSumMinor, handleSumMinor)
VELA_SCALAR_HANDLER(kavAlarmSumWarning, handleSumWarning)
VELA_SCALAR_HANDLER(kavAlarmSumIndeterminate, handleSumIndeterminate)
VELA_SCALAR_HANDLER(kavAlarmActiveNumber, handleActiveNumber)
VELA_SCALAR_HANDLER(kavAlarmActiveLastSequenceNo, handleActiveLastSequenceNo)
VELA_SCALAR_HANDLER(kavAlarmAlertNumber, handleAlertNumber)
VELA_SCALAR_HANDLER(kavAlarmAlertLastSequenceNo, handleAlertLastSequenceNo)
VELA_SCALAR_HANDLER(kavAlarmHbInterval, handleHeartbeatInterval)
VELA_SCALAR_HANDLER(kavAlarmActiveTableURL, handleActiveTableURL)
VELA_SCALAR_HANDLER(kavAlarmActiveLastChanged, handleActiveLastChanged)
VELA_SCALAR_HANDLER(kavAlarmAlertTableURL, handleAlertTableURL)
VELA_SCALAR_HANDLER(kavAlarmAlertLastChanged, handleAlertLastChanged)

#undef VELA_SCALAR_HANDLER

}  // namespace VelaFmSnmp
