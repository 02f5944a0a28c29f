#include "framework/HostLog.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "TemporaryFolder.h"
#include "support/LogLimit.h"

namespace VelaNode {
namespace {

std::string contentOf(const std::string& file) {
  std::ostringstream content;
  content << std::ifstream(file).rdbuf();
  return content.str();
}

TEST(HostLog, IsBoundedWhileItIsWritten) {
  const TemporaryFolder folder;
  const std::string file = folder.file("node.log");
  constexpr std::size_t size = 1000;
  HostLog log;
  log.setBounds(size, 3);
  log.open(file);
  for (int i = 0; i < 100; ++i) log.write(3, "c", "f", ("line " + std::to_string(i) + ".").c_str());
  std::string kept;
  for (const char* suffix : {".2", ".1", ""}) {
    EXPECT_LE(std::filesystem::file_size(file + suffix), size);
    kept += contentOf(file + suffix);
  }
  EXPECT_FALSE(std::filesystem::exists(file + ".3"));
  for (int i = 70; i < 100; ++i) EXPECT_NE(kept.find("line " + std::to_string(i) + "."), std::string::npos) << i;

  std::filesystem::rename(file, file + ".moved");
  log.open(file);
  log.write(3, "c", "f", "anew");
  EXPECT_THAT(contentOf(file), testing::EndsWith("c f: anew\n"));
  log.setBounds(size, 1);
  for (int i = 0; i < 100; ++i) log.write(3, "c", "f", "only one file");
  EXPECT_LE(std::filesystem::file_size(file), size);
}

TEST(LogLimit, WhatRepeatsIsCountedAndWhatIsLongIsCut) {
  LogLimit limit;
  unsigned written = 0;
  for (int i = 0; i < 1000; ++i) written += limit.passes("peer 10.0.0." + std::to_string(i) + " is refused") ? 1 : 0;
  EXPECT_EQ(written, LogLimit::linesPerMinute);
  EXPECT_TRUE(limit.passes("another line"));
  EXPECT_EQ(limit.endMinute(),
            std::vector<std::string>{"980 more lines in the last minute like: peer 10.0.0.20 is refused"});
  EXPECT_TRUE(limit.passes("peer 10.0.0.1 is refused"));
  EXPECT_TRUE(limit.endMinute().empty());

  written = 0;
  for (int i = 0; i < 100000; ++i)
    written += limit.passes(std::string(1, static_cast<char>(i)) + std::to_string(i / 256)) ? 1 : 0;
  EXPECT_LE(written, (LogLimit::maxKinds + 1) * LogLimit::linesPerMinute);
  EXPECT_EQ(LogLimit::cut(std::string(300, 'x'), 200), std::string(200, 'x') + "... (300 octets)");
  EXPECT_EQ(LogLimit::cut("short", 200), "short");
}

}  // namespace
}  // namespace VelaNode
