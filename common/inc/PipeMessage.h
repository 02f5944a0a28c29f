#ifndef VELA_PIPE_MESSAGE_H
#define VELA_PIPE_MESSAGE_H

namespace Vela {

/** Base of what travels through a thread's input pipe. The type code tells the receiver what it is. */
class PipeMessage {
 public:
  explicit PipeMessage(int messageType) : _messageType(messageType) {}
  virtual ~PipeMessage() = default;
  PipeMessage(const PipeMessage&) = delete;
  PipeMessage& operator=(const PipeMessage&) = delete;

  int getMessageType() const { return _messageType; }

 private:
  const int _messageType;
};

}  // namespace Vela
#endif
