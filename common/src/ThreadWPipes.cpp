#include "ThreadWPipes.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>
#include <utility>

#include "VelaException.h"

namespace Vela {

namespace {
constexpr std::size_t MaxThreadName = 15;
std::atomic<int> threadsLeft = 0;
}  // namespace

ThreadWPipes::ThreadWPipes(const std::string& name) : _name(name.substr(0, MaxThreadName)) {
  int descriptors[2];
  if (::pipe2(descriptors, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw VelaException("Failed to create the input pipe of thread %s: %s", name.c_str(), std::strerror(errno));
  }
  _readFd = descriptors[0];
  _writeFd = descriptors[1];
}

ThreadWPipes::~ThreadWPipes() {
  if (!join(0)) _thread.detach();
  ::close(_readFd);
  ::close(_writeFd);
}

void ThreadWPipes::start(Poco::Runnable& body) {
  if (!join(0)) throw VelaException("The thread %s runs already", _name.c_str());
  std::promise<void> end;
  std::future<void> ended = end.get_future();
  try {
    _thread = std::thread([&body, name = _name, end = std::move(end)]() mutable {
      ::pthread_setname_np(::pthread_self(), name.c_str());
      body.run();
      end.set_value();
    });
  } catch (const std::system_error& ex) {
    throw VelaException("Failed to start the thread %s: %s", _name.c_str(), ex.what());
  }
  _ended = std::move(ended);
  ++threadsLeft;
}

bool ThreadWPipes::join(long milliseconds) {
  if (!_thread.joinable()) return true;
  if (_ended.wait_for(std::chrono::milliseconds(milliseconds)) != std::future_status::ready) return false;
  _thread.join();
  --threadsLeft;
  return true;
}

bool ThreadWPipes::isAnyLeft() { return threadsLeft > 0; }

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
