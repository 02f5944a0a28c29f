#include "framework/NodeServices.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "TemporaryFolder.h"
#include "VelaException.h"

namespace VelaNode {

namespace {

using testing::HasSubstr;

VelaReturnT nothing(VelaStateChangeReason) { return VELA_OK; }

}  // namespace

TEST(HostLog, LinesAreOneLineEach) {
  EXPECT_EQ(HostLog::format({3, "VelaFmSnmp", "start", "bad\nnews\x1b[31m\n"}, 951782400000007),
            "2000-02-29T00:00:00.000007Z error   VelaFmSnmp start: bad\\nnews?[31m");
  EXPECT_THAT(HostLog::format({8, "FM", "f", " >> "}, 0), HasSubstr("1970-01-01T00:00:00.000000Z trace   FM f:  >> "));
  EXPECT_THAT(HostLog::format({99, "c", "f", "t"}, 0), HasSubstr("trace"));
}

TEST(HostLog, LevelDecidesWhatIsWritten) {
  const struct {
    int level, reported;
    std::vector<std::string> written;
  } cases[] = {
      {-1, 0, {}},
      {6, 6, {"error", "info"}},
      {8, 8, {"error", "info", "trace"}},
      {99, 9, {"error", "info", "trace"}},
  };
  HostLog log;
  std::vector<std::string> written;
  log.setSink([&](const HostLog::Line& line) { written.emplace_back(line.text); });
  for (const auto& item : cases) {
    written.clear();
    log.setLevel(item.level);
    EXPECT_EQ(HostLog::getLogTable()->getLevel(), item.reported);
    HostLog::getLogTable()->write(3, "c", "f", "error");
    log.print(6, "f", "%s", "info");
    HostLog::getTraceTable()->write("FM", nullptr, "trace");
    EXPECT_EQ(written, item.written) << item.level;
  }
}

TEST(HostLog, FileIsAppendedTo) {
  const TemporaryFolder folder;
  const std::string path = folder.file("node.log");
  for (const char* text : {"first", "second"}) {
    HostLog log;
    log.open(path);
    EXPECT_THROW(log.open(folder.file("no/such/folder")), Vela::VelaException);
    log.write(3, "c", "f", text);
  }
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  EXPECT_THAT(content.str(), testing::MatchesRegex("[^\n]* c f: first\n[^\n]* c f: second\n"));
  struct stat status {};
  ::stat(path.c_str(), &status);
  EXPECT_EQ(status.st_mode & 0777u, 0600u);
}

TEST(NodeServices, OffersNothingOfAnotherVersionOrComponent) {
  const NodeServices services("host", "/folder");
  EXPECT_EQ(HostPortal::getAccessor()->getPortal("2"), nullptr);
  EXPECT_EQ(HostPortal::getAccessor()->getPortal(nullptr), nullptr);
  const VelaMgmtSpiInterfacePortal_1T* const portal = HostPortal::getAccessor()->getPortal("1");
  ASSERT_NE(portal, nullptr);
  EXPECT_STREQ(portal->getHostName(), "host");
  EXPECT_STREQ(portal->getHostDirectory(), "/folder");
  const struct {
    const char *component, *name, *version;
    const void* table;
  } cases[] = {
      {nullptr, "VelaMwSpiLog", "1", HostLog::getLogTable()},
      {nullptr, "DaxMwSpiTrace", "any version", HostLog::getTraceTable()},
      {nullptr, "VelaOamSpiManagedObject", nullptr, ManagedObjectService::getTable()},
      {"VelaOamSpiCmRouterService", "VelaOamSpiManagedObject", "2", nullptr},
      {"VelaOamSpiEventService", "VelaOamSpiManagedObject", "3", nullptr},
      {nullptr, "VelaMwSpiLog", "2", nullptr},
  };
  for (const auto& item : cases) {
    void* table = nullptr;
    EXPECT_EQ(portal->getInterface(item.component, item.name, item.version, &table),
              item.table == nullptr ? VELA_NOT_FOUND : VELA_OK);
    EXPECT_EQ(table, item.table);
    EXPECT_EQ(portal->releaseInterface(table), item.table == nullptr ? VELA_NOT_FOUND : VELA_OK);
  }
}

TEST(NodeServices, RegistersComponentsWhoseDependenciesExist) {
  const NodeServices services;
  const VelaMgmtSpiInterfacePortal_1T& portal = *HostPortal::getTable();
  const VelaMgmtSpiInterface_1 log = {nullptr, "VelaMwSpiLog", "1"};
  const VelaMgmtSpiInterface_1 offer = {nullptr, "Pump", "2"};
  const VelaMgmtSpiInterface_1 pump = {"provider", "Pump", nullptr};
  const VelaMgmtSpiInterface_1* const offers[] = {&offer, nullptr};
  const VelaMgmtSpiInterface_1* const needs[] = {&log, &pump, nullptr};
  const VelaMgmtSpiComponent_1T user = {"user", {nullptr, "I", "1"}, nullptr, needs, &nothing, &nothing};
  const VelaMgmtSpiComponent_1T provider = {"provider", {nullptr, "I", "1"}, offers, nullptr, &nothing, &nothing};
  const VelaMgmtSpiComponent_1T twin = provider;
  const VelaMgmtSpiComponent_1T lame = {"lame", {nullptr, "I", "1"}, nullptr, nullptr, &nothing, nullptr};
  const struct {
    const VelaMgmtSpiComponent_1T* component;
    VelaReturnT result;
  } steps[] = {{&user, VELA_NOT_FOUND}, {&provider, VELA_OK},  {&twin, VELA_EXISTS},
               {&user, VELA_OK},        {&lame, VELA_INVALID}, {nullptr, VELA_INVALID}};
  for (const auto& [component, result] : steps) EXPECT_EQ(portal.registerComponent(component), result);
  EXPECT_EQ(portal.unregisterComponent(&provider), VELA_OK);
  EXPECT_EQ(portal.unregisterComponent(&provider), VELA_NOT_FOUND);
}

TEST(NodeServices, OneAtATimeAndOneAfterTheOther) {
  for (int round = 0; round < 2; ++round) {
    NodeServices services;
    EXPECT_THROW(NodeServices(), Vela::VelaException);
    EXPECT_NE(HostPortal::getAccessor()->getPortal("1"), nullptr);
  }
  EXPECT_STREQ(HostPortal::getTable()->getHostName(), "");
}

}  // namespace VelaNode
