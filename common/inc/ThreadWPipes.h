#ifndef VELA_THREAD_W_PIPES_H
#define VELA_THREAD_W_PIPES_H

#include <Poco/Mutex.h>
#include <Poco/Runnable.h>

#include <deque>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "PipeMessage.h"

namespace Vela {

/**
 * A thread with an input queue that can be waited on with select: the read descriptor is readable exactly while
 * messages are waiting. The queue has no limit, so pushing never blocks, whatever the size of a burst; messages come
 * out in the order in which they went in.
 */
class ThreadWPipes {
 public:
  /** Throws Vela::VelaException when the descriptors cannot be made. */
  explicit ThreadWPipes(const std::string& name);
  /** The thread must have ended; one that runs still is abandoned. Waiting messages are deleted. */
  ~ThreadWPipes();
  ThreadWPipes(const ThreadWPipes&) = delete;
  ThreadWPipes& operator=(const ThreadWPipes&) = delete;

  /** Starts the thread on a body that outlives it. Throws Vela::VelaException when it runs already, or cannot be made.
   */
  void start(Poco::Runnable& body);
  /** Waits for the thread's end, at most so many milliseconds. True when it has ended (or never ran); what it did is
      visible then. start and join are for one thread at a time. */
  bool join(long milliseconds);
  /** Whether any object's thread was started and never joined, so that it may run still. Any thread. */
  static bool isAnyLeft();

  /** Hands a message over. Any thread; takes ownership. */
  void pushToInput(std::unique_ptr<PipeMessage> message);
  /** Takes all waiting messages, oldest first. The thread that reads the pipe only. */
  std::vector<std::unique_ptr<PipeMessage>> popFromInput();
  /** Descriptor for select; owned by this object. */
  int getInputReadFD() const { return _readFd; }

 private:
  const std::string _name;
  std::thread _thread;      /**< joinable from a start to the join after its end */
  std::future<void> _ended; /**< of the last start; ready when the body has returned */
  Poco::FastMutex _mutex;
  std::deque<std::unique_ptr<PipeMessage>> _input;
  int _readFd = -1;
  int _writeFd = -1;
};

}  // namespace Vela
#endif
