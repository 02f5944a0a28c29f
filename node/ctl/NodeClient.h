#ifndef VELA_NODE_NODE_CLIENT_H
#define VELA_NODE_NODE_CLIENT_H

#include <Poco/JSON/Object.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "support/FileDescriptor.h"

namespace VelaNode {

/** The command could not be carried out; the text says why. */
class CommandError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/** A connection to the node that runs on a folder. Failures are CommandError. */
class NodeClient {
 public:
  using ItemHandler = std::function<void(const Poco::JSON::Object& item)>;

  explicit NodeClient(const std::string& nodeFolder);

  /** Sends a request and returns its result; items that come before the result go to the handler. */
  Poco::JSON::Object::Ptr call(const Poco::JSON::Object& request, const ItemHandler& onItem = {});
  /** Waits until the node's process has ended. */
  void waitForEnd();

 private:
  std::string readLine();

  const std::string _folder;
  FileDescriptor _socket;
  FileDescriptor _process; /**< readable once the node has ended */
  std::string _received;
  std::size_t _position = 0; /**< where the next line begins in what was received */
};

}  // namespace VelaNode
#endif
