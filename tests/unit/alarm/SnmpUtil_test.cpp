#include "SnmpUtil.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "AlarmTestSupport.h"
#include "VelaException.h"
#include "adaptor/StateTestSupport.h"

namespace AlarmTest {

using VelaFmSnmp::SnmpUtil;

namespace {

TEST(SnmpUtil, DateAndTimeIsLocalTimeWithItsOffset) {
  const struct {
    const char* zone;
    unsigned long long time;
    std::string octets;
  } cases[] = {
      {"UTC", 1500000000999999999ULL, {"\x07\xE1\x07\x0E\x02\x28\x00\x09+\x00\x00", 11}},
      {"UTC", 0, {"\x07\xB2\x01\x01\x00\x00\x00\x00+\x00\x00", 11}},
      {"UTC", 1500000000099999999ULL, {"\x07\xE1\x07\x0E\x02\x28\x00\x00+\x00\x00", 11}},
      {"IST-5:30", 1500000000100000000ULL, {"\x07\xE1\x07\x0E\x08\x0A\x00\x01+\x05\x1E", 11}},
      {"NST3:30", 1500000000200000000ULL, {"\x07\xE1\x07\x0D\x17\x0A\x00\x02-\x03\x1E", 11}},
      {"UTC", std::numeric_limits<unsigned long long>::max(), {"\x09\xFA\x07\x15\x17\x22\x21\x07+\x00\x00", 11}},
  };
  for (const auto& [name, time, octets] : cases) {
    const TimeZone zone(name);
    EXPECT_EQ(SnmpUtil::getDateAndTime(time), octets) << name << " " << time;
  }
  const TimeZone zone("NST3:30");
  EXPECT_EQ(SnmpUtil::getTimeStr(1500000000999999999ULL), "2017-07-13_23:10:00");
  EXPECT_EQ(SnmpUtil::getTimeStr(0), "1969-12-31_20:30:00");
}

TEST(SnmpUtil, ParsesTimesOfTheModel) {
  const StateTest::CapturedLog log;
  const struct {
    const char* text;
    unsigned long long time;
  } cases[] = {
      {"2017-03-14T10:00:00.123456+01:00", 1489482000123456000ULL},
      {"2017-03-14T10:00:00.123456Z", 1489485600123456000ULL},
      {"2017-03-14T10:00:00.5-03:30", 1489498200500000000ULL},
      {"1970-01-01T00:30:00.0+00:30", 0},
  };
  for (const auto& [text, time] : cases) EXPECT_EQ(SnmpUtil::parseTimeStr(text), time) << text;
  EXPECT_TRUE(log.lines(Vela::LogError).empty());

  const char* const unusable[] = {"",
                                  "now",
                                  "2017-13-14T10:00:00.1Z",
                                  "2017-03-14T25:00:00.1Z",
                                  "1969-12-31T23:59:59.9Z",
                                  "9999-12-31T23:59:59.9Z"};
  for (const char* text : unusable) {
    EXPECT_EQ(SnmpUtil::parseTimeStr(text), 0U) << text;
    EXPECT_EQ(log.count(Vela::LogError, "parseTimeStr: '" + std::string(text) + "' FAILED"), 1) << text;
  }
  EXPECT_EQ(SnmpUtil::parseTimeStr(nullptr), 0U);
}

TEST(SnmpUtil, TranslatesSeverities) {
  const struct {
    int framework;
    const char* name;
    int mib;
  } known[] = {{0, "CLEARED", 1}, {1, "INDETERMINATE", 2}, {2, "WARNING", 6},
               {3, "MINOR", 5},   {4, "MAJOR", 4},         {5, "CRITICAL", 3}};
  for (const auto& [framework, name, mib] : known) {
    EXPECT_EQ(SnmpUtil::getSeverityStr(framework), name);
    EXPECT_EQ(SnmpUtil::translateSeverityXMOD_to_SNMP(framework), mib);
    if (framework != 1) {
      EXPECT_EQ(SnmpUtil::translateSeveritySPI_to_XMOD(static_cast<short>(mib)), framework);
    }
  }
  for (const int severity : {-1, 6, 7, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
    EXPECT_EQ(SnmpUtil::getSeverityStr(severity), "UNKNOWN");
    EXPECT_EQ(failureOf([&] { SnmpUtil::translateSeverityXMOD_to_SNMP(severity); }),
              "Faulty alarm severity received: " + std::to_string(severity));
  }
  const StateTest::CapturedLog log;
  for (const short severity : {short{0}, short{2}, short{7}, std::numeric_limits<short>::min()}) {
    const std::string text = "Faulty alarm severity received: " + std::to_string(severity);
    EXPECT_EQ(failureOf([&] { SnmpUtil::translateSeveritySPI_to_XMOD(severity); }), text);
    EXPECT_EQ(log.count(Vela::LogError, text), 1);
  }
}

unsigned long long wallClock = 0;

TEST(SnmpUtil, NowNeverGoesBack) {
  const StateTest::CapturedLog log;
  SnmpUtil::setWallClock([] { return wallClock; });
  const auto nowAt = [](unsigned long long time) {
    wallClock = time;
    return SnmpUtil::getNow();
  };
  EXPECT_EQ(nowAt(50000), 50000U);
  EXPECT_EQ(nowAt(50000), 50000U);
  EXPECT_EQ(nowAt(40000), 50000U);
  EXPECT_EQ(nowAt(40007), 50007U);
  EXPECT_EQ(nowAt(10000), 50007U);
  EXPECT_EQ(nowAt(10001), 50008U);
  EXPECT_EQ(nowAt(90001), 130008U);
  EXPECT_EQ(log.count(Vela::LogInfo, "Detected time going backwards!"), 2);
  SnmpUtil::setWallClock(nullptr);
  EXPECT_GT(SnmpUtil::getNow(), 1600000000000ULL);
}

}  // namespace

}  // namespace AlarmTest
