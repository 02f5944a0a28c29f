#include "fault/AlarmJournal.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/Timestamp.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "LoggingWrapper.h"
#include "VelaException.h"
#include "fault/AlarmRecords.h"
#include "support/Files.h"

namespace VelaNode {

namespace {

/** A file below this size is not worth writing anew. */
constexpr std::uint64_t leastRewriteSize = 1024UL * 1024;
/** How many times its whole content a file may grow to. */
constexpr std::uint64_t growthLimit = 3;
constexpr std::size_t chunkSize = 1024UL * 1024;
constexpr std::chrono::seconds retryInterval{2};

}  // namespace

AlarmJournal::AlarmJournal(std::string path) : _path(std::move(path)) {}

AlarmJournal::~AlarmJournal() {
  if (!_thread.joinable()) return;
  {
    const std::lock_guard lock(_mutex);
    _isStopping = true;
  }
  _appended.notify_all();
  _thread.join();
}

FmState AlarmJournal::load() {
  struct stat status {};
  if (::lstat(_path.c_str(), &status) != 0 && errno == ENOENT) {
    _mustRewrite = true;
    return {};
  }
  std::string octets;
  try {
    octets = readWholeFile(_path);
  } catch (const Vela::VelaException& ex) {
    VELA_LOG(Vela::LogError, "The active alarms could not be read: %s", ex.what());
    setAside();
    return {};
  }
  DecodedRecords decoded = decodeRecords(octets);
  const std::size_t tail = octets.size() - decoded.validEnd;
  if (decoded.damagedOctets > 0 || (decoded.recordCount == 0 && tail > 0)) {
    VELA_LOG(Vela::LogError, "%s is damaged: %zu of its octets cannot be read, %zu active alarms can", _path.c_str(),
             decoded.damagedOctets + tail, decoded.state.alarms.getSize());
    setAside();
  } else if (tail > 0) {
    VELA_LOG(Vela::LogWarning, "%s: the last change was not written to its end and is left out (%zu octets)",
             _path.c_str(), tail);
    _mustRewrite = true;
  }
  _size = octets.size();
  return std::move(decoded.state);
}

void AlarmJournal::setAside() {
  _mustRewrite = true;
  const std::string kept = _path + ".damaged-" + Poco::DateTimeFormatter::format(Poco::Timestamp(), "%Y%m%dT%H%M%S.%i");
  // A second name, so that what could be read is not lost if the node dies before it is written anew.
  if (::link(_path.c_str(), kept.c_str()) == 0 || ::rename(_path.c_str(), kept.c_str()) == 0) {
    VELA_LOG(Vela::LogError, "The damaged file is kept as %s", kept.c_str());
  } else {
    VELA_LOG(Vela::LogError, "%s cannot be kept under another name: %s", _path.c_str(), std::strerror(errno));
  }
}

void AlarmJournal::start(Source source) {
  _source = std::move(source);
  if (!_mustRewrite) {
    _file = FileDescriptor(::open(_path.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC));
    _mustRewrite = !_file.isOpen();
  }
  _thread = std::thread([this] { run(); });
}

void AlarmJournal::append(std::string record) {
  {
    const std::lock_guard lock(_mutex);
    _position += record.size();
    _pending += record;
  }
  _appended.notify_one();
}

std::uint64_t AlarmJournal::position() const {
  const std::lock_guard lock(_mutex);
  return _position;
}

void AlarmJournal::sync() {
  std::unique_lock lock(_mutex);
  const std::uint64_t wanted = _position;
  _written.wait(lock, [&] { return _durable >= wanted || _failed >= wanted; });
  if (_durable < wanted) throw Vela::VelaException("%s", _failure.c_str());
}

void AlarmJournal::run() {
  std::unique_lock lock(_mutex);
  for (;;) {
    const auto isToAct = [this] { return _isStopping || !_pending.empty(); };
    if (!_mustRewrite) {
      _appended.wait(lock, isToAct);
    } else if (!_failure.empty()) {
      _appended.wait_for(lock, retryInterval, isToAct);
    }
    if (!_pending.empty() || _mustRewrite) flush(lock);
    if (_isStopping && _pending.empty()) return;
  }
}

/** Writes what is pending; the lock is open meanwhile. */
void AlarmJournal::flush(std::unique_lock<std::mutex>& lock) {
  const std::string records = std::exchange(_pending, {});
  const std::uint64_t taken = _position;
  const bool isLast = _isStopping;
  std::uint64_t durable = taken;
  std::string failure = _failure;
  lock.unlock();
  const auto now = std::chrono::steady_clock::now();
  if (failure.empty() || isLast || now - _lastFailure >= retryInterval) {
    try {
      if (_mustRewrite || _size + records.size() > std::max(leastRewriteSize, growthLimit * _wholeSize)) {
        durable = rewrite();
      } else {
        write(records);
      }
      failure.clear();
    } catch (const std::exception& ex) {
      failure = ex.what();
      _mustRewrite = true;  // what is in the file may end in the midst of a record
      _lastFailure = now;
    }
  }
  lock.lock();
  if (failure != _failure) {
    if (failure.empty()) {
      VELA_LOG(Vela::LogNotice, "%s: the active alarms are kept again", _path.c_str());
    } else {
      VELA_LOG(Vela::LogError, "The active alarms would not survive a restart: %s", failure.c_str());
    }
    _failure = failure;
  }
  if (failure.empty()) {
    _durable = durable;
    // What came while all was written anew is in the file already.
    _pending.erase(0, durable - taken);
  } else {
    _failed = taken;
  }
  _written.notify_all();
}

void AlarmJournal::write(const std::string& records) {
  writeAll(_file, records, _path);
  if (::fdatasync(_file.get()) != 0) {
    throw Vela::VelaException("%s: cannot be written: %s", _path.c_str(), std::strerror(errno));
  }
  _size += records.size();
}

/** Writes the whole state as a new file in place of the old one; returns the position up to which it tells all. */
std::uint64_t AlarmJournal::rewrite() {
  std::uint64_t position = 0;
  const FmState state = _source(position);
  NewFile file(_path);
  std::uint64_t size = 0;
  std::string chunk = encodeNumbers(state.numbers);
  const auto writeChunk = [&] {
    file.write(chunk);
    size += chunk.size();
    chunk.clear();
  };
  state.alarms.forEach([&](const ActiveAlarm& active) {
    chunk += encodeActive(*active.alarm, state.numbers);
    if (chunk.size() >= chunkSize) writeChunk();
    return true;
  });
  writeChunk();
  _file = file.replace();
  _size = _wholeSize = size;
  _mustRewrite = false;
  return position;
}

}  // namespace VelaNode
