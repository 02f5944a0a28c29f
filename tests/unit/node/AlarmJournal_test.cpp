#include "fault/AlarmJournal.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <thread>

#include "TemporaryFolder.h"
#include "VelaException.h"
#include "fault/AlarmRecords.h"
#include "support/Files.h"

namespace VelaNode {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

FmAlarm alarm(std::uint32_t index, const std::string& problem = "Link failure") {
  FmAlarm made;
  made.index = index;
  made.key = {"ManagedElement=1,Port=" + std::to_string(index), 193, 12, problem};
  made.severity = FmMajor;
  made.originalSeverity = FmMinor;
  made.additionalText = "no light";
  made.originalAdditionalText = "little light";
  made.eventTime = 1489482000123456000 + index;
  made.originalEventTime = 1489482000000000000;
  made.eventType = 2;
  made.probableCause = 29;
  made.additionalInfo = {{"slot", "3"}, {"", std::string("\xff\x01", 2)}};
  return made;
}

FmNumbers numbers(std::uint64_t sequenceNo) { return {sequenceNo, 7, 8, 9, 10, 11}; }

std::vector<std::uint32_t> indexes(const FmState& state) {
  std::vector<std::uint32_t> found;
  state.alarms.forEach([&](const ActiveAlarm& active) {
    found.push_back(active.key());
    return true;
  });
  return found;
}

TEST(AlarmRecordsTest, EveryMemberComesBack) {
  const FmAlarm before = alarm(4294967295);
  const DecodedRecords decoded = decodeRecords(encodeActive(before, numbers(18446744073709551615ULL)));
  ASSERT_THAT(indexes(decoded.state), ElementsAre(4294967295));
  const FmAlarm& after = *decoded.state.alarms.first()->alarm;
  EXPECT_EQ(after.key.source, before.key.source);
  EXPECT_EQ(after.key.majorType, 193U);
  EXPECT_EQ(after.key.minorType, 12U);
  EXPECT_EQ(after.key.specificProblem, "Link failure");
  EXPECT_EQ(after.severity, FmMajor);
  EXPECT_EQ(after.originalSeverity, FmMinor);
  EXPECT_EQ(after.additionalText, "no light");
  EXPECT_EQ(after.originalAdditionalText, "little light");
  EXPECT_EQ(after.eventTime, before.eventTime);
  EXPECT_EQ(after.originalEventTime, before.originalEventTime);
  EXPECT_EQ(after.eventType, 2U);
  EXPECT_EQ(after.probableCause, 29U);
  EXPECT_THAT(after.additionalInfo, ElementsAre(Pair("slot", "3"), Pair("", std::string("\xff\x01", 2))));
  EXPECT_EQ(decoded.state.numbers.alarmSequenceNo, 18446744073709551615ULL);
  EXPECT_EQ(decoded.state.numbers.lastIndex, 4294967295U) << "an index is never given again";
}

/** Three alarms are raised, one is cleared, one is changed: 5 records. */
class DamageTest : public testing::Test {
 protected:
  DamageTest() {
    for (const std::string& record :
         {encodeActive(alarm(1), numbers(1)), encodeActive(alarm(2), numbers(2)), encodeActive(alarm(3), numbers(3)),
          encodeRemoved(2, numbers(4)), encodeActive(alarm(3), numbers(5))}) {
      _octets += record;
      _ends.push_back(_octets.size());
    }
  }

  /** What is active after the first so many records. */
  static std::vector<std::uint32_t> activeAfter(std::size_t count) {
    static const std::vector<std::uint32_t> states[] = {{}, {1}, {1, 2}, {1, 2, 3}, {1, 3}, {1, 3}};
    return states[count];
  }

  std::string _octets;
  std::vector<std::size_t> _ends;
};

TEST_F(DamageTest, CutAtAnyOctetOnlyTheLastChangeIsLost) {
  for (std::size_t size = 0; size <= _octets.size(); ++size) {
    const auto whole = static_cast<std::size_t>(std::ranges::upper_bound(_ends, size) - _ends.begin());
    const DecodedRecords decoded = decodeRecords(std::string_view(_octets).substr(0, size));
    ASSERT_EQ(indexes(decoded.state), activeAfter(whole)) << size;
    ASSERT_EQ(decoded.state.numbers.alarmSequenceNo, whole) << size;
    ASSERT_EQ(decoded.validEnd, whole == 0 ? 0 : _ends[whole - 1]) << size;
    ASSERT_EQ(decoded.damagedOctets, 0U) << size;
  }
}

TEST_F(DamageTest, ADamagedOctetCostsItsRecordOnly) {
  for (std::size_t at = 0; at < _octets.size(); ++at) {
    for (const int bits : {1, 0x80, 0xff}) {
      std::string octets = _octets;
      octets[at] = static_cast<char>(octets[at] ^ bits);
      const DecodedRecords decoded = decodeRecords(octets);
      const auto hit = static_cast<std::size_t>(std::ranges::upper_bound(_ends, at) - _ends.begin());
      ASSERT_EQ(decoded.recordCount, _ends.size() - 1) << at;
      const bool isLast = hit + 1 == _ends.size();
      ASSERT_EQ(decoded.damagedOctets, isLast ? 0 : _ends[hit] - (hit == 0 ? 0 : _ends[hit - 1])) << at;
      ASSERT_EQ(decoded.state.numbers.alarmSequenceNo, isLast ? 4U : 5U) << at;
      const std::vector<std::uint32_t> without[] = {{3}, {1, 3}, {1, 3}, {1, 2, 3}, {1, 3}};
      ASSERT_EQ(indexes(decoded.state), without[hit]) << at;
    }
  }
}

TEST_F(DamageTest, AnAlarmWhoseEndWasLostGivesWayToTheNextOfItsKey) {
  FmAlarm again = alarm(9);
  again.key = alarm(1).key;
  EXPECT_THAT(indexes(decodeRecords(_octets + encodeActive(again, numbers(6))).state), ElementsAre(3, 9));
}

/** A journal whose state is kept as the service keeps it. */
class AlarmJournalTest : public testing::Test {
 protected:
  std::string path() const { return _folder.file("alarms.journal"); }

  std::unique_ptr<AlarmJournal> open() {
    auto journal = std::make_unique<AlarmJournal>(path());
    _state = journal->load();
    AlarmJournal* const opened = journal.get();
    journal->start([this, opened](std::uint64_t& position) {
      const std::lock_guard lock(_mutex);
      position = opened->position();
      return _state;
    });
    return journal;
  }
  void raise(AlarmJournal& journal, std::uint32_t index, const std::string& problem = "Link failure") {
    const std::lock_guard lock(_mutex);
    ++_state.numbers.alarmSequenceNo;
    _state.alarms.put({std::make_shared<const FmAlarm>(alarm(index, problem))});
    journal.append(encodeActive(alarm(index, problem), _state.numbers));
  }
  /** What the file tells at this moment. */
  FmState onDisk() const { return decodeRecords(readWholeFile(path())).state; }
  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(path()).parent_path())) {
      names.push_back(entry.path().filename());
    }
    std::ranges::sort(names);
    return names;
  }

  TemporaryFolder _folder;
  std::mutex _mutex;
  FmState _state;
};

TEST_F(AlarmJournalTest, WhatIsSyncedIsInTheFileAndComesBack) {
  auto journal = open();
  for (std::uint32_t index = 1; index <= 3; ++index) raise(*journal, index);
  journal->sync();
  EXPECT_THAT(indexes(onDisk()), ElementsAre(1, 2, 3));
  struct stat status {};
  ASSERT_EQ(0, ::stat(path().c_str(), &status));
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  raise(*journal, 4);
  journal.reset();
  journal = open();
  EXPECT_THAT(indexes(_state), ElementsAre(1, 2, 3, 4)) << "the end writes what is left";
  EXPECT_EQ(_state.numbers.alarmSequenceNo, 4U);
}

TEST_F(AlarmJournalTest, ATornTailIsCutOffAndADamagedFileIsKeptAside) {
  const std::string first = encodeActive(alarm(1), numbers(1));
  const std::string second = encodeActive(alarm(2), numbers(2));
  std::string damaged = first;
  damaged[damaged.size() / 2] ^= 1;
  struct Case {
    std::string octets;
    std::vector<std::uint32_t> active;
    bool isKept;
  } const cases[] = {
      {first + second.substr(0, second.size() / 2), {1}, false},
      {first + std::string(100000, '\0'), {1}, false},
      {damaged + second, {2}, true},
      {"<model/>", {}, true},
      {std::string(100000, '\0'), {}, true},
      {"", {}, false},
  };
  for (const Case& item : cases) {
    for (const std::string& name : files()) std::filesystem::remove(_folder.file(name));
    writeWholeFile(path(), item.octets);
    auto journal = open();
    EXPECT_EQ(indexes(_state), item.active);
    raise(*journal, 5);
    journal.reset();
    std::vector<std::uint32_t> expected = item.active;
    expected.push_back(5);
    const DecodedRecords now = decodeRecords(readWholeFile(path()));
    EXPECT_EQ(indexes(now.state), expected);
    EXPECT_EQ(now.validEnd, std::filesystem::file_size(path())) << "nothing torn is left in the midst of the file";
    EXPECT_EQ(now.damagedOctets, 0U);
    ASSERT_EQ(files().size(), item.isKept ? 2U : 1U);
    if (item.isKept) {
      EXPECT_EQ(readWholeFile(_folder.file(files().back())), item.octets);
    }
  }
}

TEST_F(AlarmJournalTest, TheFileStaysInProportionToWhatIsActive) {
  auto journal = open();
  const std::string problem(10000, 'x');
  for (std::uint32_t i = 0; i < 2000; ++i) {
    raise(*journal, i % 20 + 1, problem);
    if (i % 50 == 0) journal->sync();
    ASSERT_LT(std::filesystem::file_size(path()), 2500000U);
  }
  journal->sync();
  EXPECT_EQ(indexes(onDisk()).size(), 20U);
  EXPECT_EQ(onDisk().numbers.alarmSequenceNo, 2000U);
}

TEST_F(AlarmJournalTest, ChangesWhileTheFileIsWrittenAnewAreNeitherLostNorDoubled) {
  auto journal = open();
  std::vector<std::thread> threads;
  for (std::uint32_t t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      for (std::uint32_t i = 0; i < 400; ++i) {
        raise(*journal, t * 1000 + i + 1, std::string(3000, 'x'));
        if (i % 40 == 0) {
          journal->sync();
          EXPECT_NE(onDisk().alarms.find(t * 1000 + i + 1), nullptr);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  journal->sync();
  const DecodedRecords now = decodeRecords(readWholeFile(path()));
  EXPECT_EQ(now.state.alarms.getSize(), 1200U);
  EXPECT_EQ(now.state.numbers.alarmSequenceNo, 1200U);
  EXPECT_LE(now.recordCount, 1201U);
}

TEST_F(AlarmJournalTest, WhileTheDiskTakesNothingTheWaitersAreToldAndAllIsWrittenLater) {
  auto journal = open();
  raise(*journal, 1);
  journal->sync();
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  rlimit full = before;
  full.rlim_cur = std::filesystem::file_size(path()) + 5;
  ::setrlimit(RLIMIT_FSIZE, &full);
  raise(*journal, 2);
  std::string failure;
  try {
    journal->sync();
  } catch (const Vela::VelaException& ex) {
    failure = ex.what();
  }
  ::setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_THAT(failure, HasSubstr(std::strerror(EFBIG)));
  EXPECT_THAT(failure, HasSubstr(path()));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (indexes(onDisk()).size() < 2 && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  EXPECT_THAT(indexes(onDisk()), ElementsAre(1, 2));
  raise(*journal, 3);
  journal->sync();
  EXPECT_THAT(indexes(onDisk()), ElementsAre(1, 2, 3));
}

}  // namespace
}  // namespace VelaNode
