#include "FmStateThread.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

#include "LoggingWrapper.h"
#include "NetSnmpLock.h"

namespace VelaFmSnmp {

namespace {

/** Keeps signals away from threads made in its scope: one would end the wait of a worker and so the worker. */
class SignalBlock {
 public:
  SignalBlock() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &_previous);
  }
  ~SignalBlock() { pthread_sigmask(SIG_SETMASK, &_previous, nullptr); }
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;

 private:
  sigset_t _previous;
};

}  // namespace

void FmStateThread::startThread() {
  if (_readFd != -1) return;
  if (!openPipe()) {
    VELA_LOG(Vela::LogError, "pipe creation failed.");
    return;
  }
  try {
    const SignalBlock block;
    _thread = std::thread([this] { threadStart(*this); });
  } catch (const std::system_error&) {
    VELA_LOG(Vela::LogError, "failed to create thread.");
    closePipe();
  }
}

void FmStateThread::stopThread() {
  if (_writeFd == -1) return;
  while (write(_writeFd, "x", 1) == -1 && errno == EINTR) {
  }
  {
    // The thread may be waiting for it.
    const NetSnmpUnlock unlock;
    _thread.join();
  }
  closePipe();
}

void FmStateThread::threadStart(FmStateThread& object) {
  try {
    object.run();
  } catch (...) {
    VELA_LOG(Vela::LogError, "unknown exception");
  }
}

bool FmStateThread::openPipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  _readFd = ends[0];
  _writeFd = ends[1];
  return true;
}

void FmStateThread::closePipe() {
  close(_readFd);
  close(_writeFd);
  _readFd = _writeFd = -1;
}

}  // namespace VelaFmSnmp
