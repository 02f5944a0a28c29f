#ifndef VELA_NODE_ALARM_JOURNAL_H
#define VELA_NODE_ALARM_JOURNAL_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "fault/FmAlarm.h"
#include "support/FileDescriptor.h"

namespace VelaNode {

/**
 * Keeps the fault-management service's state in a file, so that it outlives the process and a loss of power. Changes
 * are appended by a thread of its own; whoever must know that a change is on the disk waits with sync(). All that has
 * come while the disk was busy goes out in one write, so that many changes per second cost few synchronisations. When
 * the file has grown to a multiple of what it tells, it is written anew.
 *
 * When the file cannot be written, changes are taken nevertheless, sync() fails, and the whole state is written as soon
 * as that works again. Any thread, but for load and start.
 */
class AlarmJournal {
 public:
  /** What the service knows, and the position() that belongs to it. Called on the journal's thread and by start(). */
  using Source = std::function<FmState(std::uint64_t& position)>;

  explicit AlarmJournal(std::string path);
  ~AlarmJournal(); /**< writes what is left, and ends the thread */
  AlarmJournal(const AlarmJournal&) = delete;
  AlarmJournal& operator=(const AlarmJournal&) = delete;

  /** Reads the file; the log tells what in it cannot be read. A change that was not written to its end is left out. A
      damaged file is kept beside the new one. Never throws for what the file holds. */
  FmState load();
  /** Begins to keep changes. */
  void start(Source source);

  /** Takes the record of a change. */
  void append(std::string record);
  /** Octets taken so far. */
  std::uint64_t position() const;
  /** Waits until everything that was appended before is on the disk. Throws Vela::VelaException when it cannot be
      written. */
  void sync();

 private:
  void setAside();
  void run();
  void flush(std::unique_lock<std::mutex>& lock);
  void write(const std::string& records);
  std::uint64_t rewrite();

  const std::string _path;
  Source _source;

  // The journal's thread's own once it runs.
  FileDescriptor _file;
  std::uint64_t _size = 0;      /**< of the file */
  std::uint64_t _wholeSize = 0; /**< of the file when it was last written anew */
  bool _mustRewrite = false;    /**< the file cannot be appended to */
  std::chrono::steady_clock::time_point _lastFailure{};

  mutable std::mutex _mutex;
  std::condition_variable _appended;
  std::condition_variable _written;
  std::string _pending;
  std::uint64_t _position = 0; /**< of the end of _pending */
  std::uint64_t _durable = 0;  /**< position up to which all is on the disk */
  std::uint64_t _failed = 0;   /**< position up to which writing was tried in vain */
  std::string _failure;        /**< empty: the file can be written */
  bool _isStopping = false;
  std::thread _thread;
};

}  // namespace VelaNode
#endif
