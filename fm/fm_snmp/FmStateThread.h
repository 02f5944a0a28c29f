#ifndef VELA_FM_SNMP_FM_STATE_THREAD_H
#define VELA_FM_SNMP_FM_STATE_THREAD_H

#include <thread>

namespace VelaFmSnmp {

class SnmpAdaptorRunnable;

/**
 * A worker thread that lives no longer than the state it belongs to, with a pipe whose read end tells it to stop.
 * startThread, stopThread and the destructor are for the adaptor thread.
 */
class FmStateThread {
 public:
  explicit FmStateThread(SnmpAdaptorRunnable& owner) : _owner(owner) {}
  /** Stops the thread. A subclass calls stopThread in its own destructor, because run is gone here. */
  virtual ~FmStateThread() { stopThread(); }
  FmStateThread(const FmStateThread&) = delete;
  FmStateThread& operator=(const FmStateThread&) = delete;

  /** The thread's body. It waits only with a look at the pipe's read end, and returns when that is readable. */
  virtual void run() = 0;

  /** Starts the thread unless it was started already. A failure is logged and leaves no thread. */
  void startThread();
  /** Wakes the thread and waits for its end. Nothing happens when there is none. */
  void stopThread();

 protected:
  int getReadFD() const { return _readFd; }
  SnmpAdaptorRunnable& getOwner() const { return _owner; }

 private:
  static void threadStart(FmStateThread& object);
  bool openPipe();
  void closePipe();

  SnmpAdaptorRunnable& _owner;
  std::thread _thread;
  int _readFd = -1;
  int _writeFd = -1;
};

}  // namespace VelaFmSnmp
#endif
