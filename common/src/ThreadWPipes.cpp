#include "ThreadWPipes.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "VelaException.h"

namespace Vela {

namespace {
constexpr long EndOfThreadTimeout = 1000; /**< milliseconds */
}

ThreadWPipes::ThreadWPipes(const std::string& name) : _thread(name) {
  int descriptors[2];
  if (::pipe2(descriptors, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw VelaException("Failed to create the input pipe of thread %s: %s", name.c_str(), std::strerror(errno));
  }
  _readFd = descriptors[0];
  _writeFd = descriptors[1];
}

ThreadWPipes::~ThreadWPipes() {
  ::close(_readFd);
  ::close(_writeFd);
}

void ThreadWPipes::start(Poco::Runnable& body) {
  // A body that has returned may still be on its way out of its thread.
  if (!isRunning()) join(EndOfThreadTimeout);
  _thread.start(body);
  _isStarted = true;
}

bool ThreadWPipes::join(long milliseconds) {
  if (_isStarted && _thread.tryJoin(milliseconds)) _isStarted = false;
  return !_isStarted;
}

bool ThreadWPipes::isRunning() const { return _thread.isRunning(); }

void ThreadWPipes::pushToInput(std::unique_ptr<PipeMessage> message) {
  const Poco::FastMutex::ScopedLock lock(_mutex);
  const bool wasEmpty = _input.empty();
  _input.push_back(std::move(message));
  // One octet stands for "not empty", however many messages wait: the pipe can never fill up.
  if (wasEmpty) {
    const char mark = 'x';
    while (::write(_writeFd, &mark, 1) < 0 && errno == EINTR) {
    }
  }
}

std::vector<std::unique_ptr<PipeMessage>> ThreadWPipes::popFromInput() {
  std::deque<std::unique_ptr<PipeMessage>> taken;
  {
    const Poco::FastMutex::ScopedLock lock(_mutex);
    if (_input.empty()) return {};
    taken.swap(_input);
    char mark;
    while (::read(_readFd, &mark, 1) < 0 && errno == EINTR) {
    }
  }
  return {std::make_move_iterator(taken.begin()), std::make_move_iterator(taken.end())};
}

}  // namespace Vela
