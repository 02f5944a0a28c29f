#ifndef VELA_NODE_CONTROL_COMMANDS_H
#define VELA_NODE_CONTROL_COMMANDS_H

#include <Poco/JSON/Object.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "control/ControlServer.h"
#include "fault/FmService.h"
#include "model/MoStore.h"

namespace VelaNode {

/**
 * What an operator can ask a node: the requests of the control socket. A request names its command in "command"; the
 * other members are the command's arguments. Each request is done whole or not at all (a storm and clearing all alarms
 * apart, which are done alarm by alarm). Any thread.
 */
class ControlCommands {
 public:
  /** What the host process itself does for the commands. Any thread. */
  struct Host {
    std::function<Poco::JSON::Object::Ptr()> getStatus;
    std::function<void()> requestStop; /**< returns at once */
  };

  ControlCommands(MoStore& store, FmService& fm, Host host);

  /** A ControlServer's handler. */
  Poco::JSON::Object::Ptr handle(const Poco::JSON::Object& request, ControlReply& reply);

 private:
  using Result = Poco::JSON::Object::Ptr;
  using Command = Result (ControlCommands::*)(const Poco::JSON::Object& request, ControlReply& reply);
  struct Entry {
    const char* name;
    Command command;
    bool mustLast = false; /**< what it did is on the disk before it is answered */
  };
  static const Entry commands[];

  Result raiseAlarm(const Poco::JSON::Object& request, ControlReply& reply);
  Result changeAlarm(const Poco::JSON::Object& request, ControlReply& reply);
  Result clearAlarm(const Poco::JSON::Object& request, ControlReply& reply);
  Result clearAllAlarms(const Poco::JSON::Object& request, ControlReply& reply);
  Result listAlarms(const Poco::JSON::Object& request, ControlReply& reply);
  std::uint64_t nextStorm();
  Result raiseStorm(const Poco::JSON::Object& request, ControlReply& reply);
  Result sendAlert(const Poco::JSON::Object& request, ControlReply& reply);
  Result sendHeartbeat(const Poco::JSON::Object& request, ControlReply& reply);
  Result rebuild(const Poco::JSON::Object& request, ControlReply& reply);
  Result listObjects(const Poco::JSON::Object& request, ControlReply& reply);
  Result getObject(const Poco::JSON::Object& request, ControlReply& reply);
  Result setAttributes(const Poco::JSON::Object& request, ControlReply& reply);
  Result createObject(const Poco::JSON::Object& request, ControlReply& reply);
  Result deleteObject(const Poco::JSON::Object& request, ControlReply& reply);
  Result getStatus(const Poco::JSON::Object& request, ControlReply& reply);
  Result stop(const Poco::JSON::Object& request, ControlReply& reply);

  MoStore& _store;
  FmService& _fm;
  const Host _host;
  std::mutex _stormMutex;
  std::uint64_t _lastStorm = 0;
};

}  // namespace VelaNode
#endif
