#include "model/ModelFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "TemporaryFolder.h"
#include "VelaException.h"
#include "model/MoTransaction.h"

namespace VelaNode {

namespace {

using testing::HasSubstr;

const std::string Snmp = "ManagedElement=1,SystemFunctions=1,SysM=1,Snmp=1";

std::string contentOf(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

std::string faultOf(const std::string& text) {
  try {
    ModelFile::parse(text, "m.xml");
  } catch (const Vela::VelaException& ex) {
    return ex.what();
  }
  return "nothing thrown";
}

/** Content of an Snmp object that stands on line 6. */
std::string inSnmp(const std::string& content) {
  return "<model>\n<ManagedElement id='1'>\n<SystemFunctions id='1'>\n<SysM id='1'>\n<Snmp id='1'>\n" + content +
         "\n</Snmp>\n</SysM>\n</SystemFunctions>\n</ManagedElement>\n</model>\n";
}

}  // namespace

TEST(ModelFile, FaultsNameFileLineAndReason) {
  const struct {
    std::string text, fault;
  } cases[] = {
      {"", "m.xml:1: not XML: "},
      {"<model>\n<ManagedElement id='1'>\n</model>", "m.xml:3: not XML: "},
      {"<model>\n<!DOCTYPE x>\n</model>", "m.xml:2: not XML: "},
      {"\n<nodel/>", "m.xml:2: the root element is <nodel>, <model> is expected"},
      {"<model>\n<Bogus id='1'/></model>", "m.xml:2: there is no class Bogus"},
      {inSnmp("<bogus>1</bogus>"), "m.xml:6: class Snmp has no attribute bogus, and there is no class of that name"},
      {inSnmp("\n<port>x</port>"), "m.xml:7: " + Snmp + "::port: \"x\" is not a number from 0 to 4294967295"},
      {inSnmp("<port/>"), "m.xml:6: " + Snmp + "::port: \"\" is not a number"},
      {inSnmp("<administrativeState>\nFOO</administrativeState>"), "m.xml:6: " + Snmp + "::administrativeState: "},
      {inSnmp("<agentAddress>\n<host>h</host><port>p</port></agentAddress>"),
       "m.xml:7: " + Snmp + "::agentAddress.port: \"p\" is not a number"},
      {inSnmp("<agentAddress><prot>1</prot></agentAddress>"), "m.xml:6: attribute agentAddress has no member prot"},
      {inSnmp("<agentAddress>127.0.0.1</agentAddress>"), "m.xml:6: text is not allowed here: \"127.0.0.1\""},
      {inSnmp("<agentAddress><port>1</port><port>2</port></agentAddress>"), "struct member \"port\" is given twice"},
      {inSnmp("<port><b>1</b></port>"), "m.xml:6: <b> is not allowed inside <port>"},
      {inSnmp("<port>1</port>\n<port>2</port>"), "m.xml:7: attribute port is there twice"},
      {inSnmp("<port unit='x'>1</port>"), "m.xml:6: <port> must not have the attribute \"unit\""},
      {inSnmp("<operationalState>ENABLED</operationalState>"),
       "m.xml:6: attribute operationalState exists at run time only"},
      {inSnmp("<SnmpViewV1 id='a'/>\n<SnmpViewV1 id='a'/>"),
       "m.xml:7: the object " + Snmp + ",SnmpViewV1=a is there twice"},
      {inSnmp("<SnmpViewV1/>"), "m.xml:6: <SnmpViewV1> needs exactly one attribute, id"},
      {inSnmp("<SnmpViewV1 id='a,b'/>"), "m.xml:6: Bad distinguished name"},
      {inSnmp("<Tls id='1'/>"), "m.xml:6: class Tls does not stand under Snmp but under SecM"},
      {inSnmp("<ManagedElement id='1'/>"), "m.xml:6: class ManagedElement does not stand under Snmp but under <model>"},
      {inSnmp("stray"), "m.xml:6: text is not allowed here: \"stray\""},
      {"<model>\n<ManagedElement id='1,SystemFunctions=1'/></model>", "m.xml:2: bad id \"1,SystemFunctions=1\""},
      {"<model><ManagedElement id='1'><SystemFunctions id='1'><Fm id='1'>\n<FmAlarm id='1'/>"
       "</Fm></SystemFunctions></ManagedElement></model>",
       "m.xml:2: objects of class FmAlarm exist at run time only"},
  };
  for (const auto& item : cases) {
    const std::string fault = faultOf(item.text);
    EXPECT_THAT(fault, HasSubstr(item.fault)) << item.text;
    EXPECT_THAT(fault, testing::StartsWith("m.xml:"));
    EXPECT_EQ(fault.find('\n'), std::string::npos);
  }
}

TEST(ModelFile, NothingIsLoadedFromAFaultyOrMissingFile) {
  const TemporaryFolder folder;
  MoStore store;
  store.install(ModelFile::parse(ModelFile::getDefaultText(), "default"));
  std::ofstream(folder.file("m.xml")) << inSnmp("<port>1</port><port>2</port>");
  EXPECT_THROW(ModelFile(folder.file("m.xml")).load(store), Vela::VelaException);
  try {
    ModelFile(folder.file("none.xml")).load(store);
    ADD_FAILURE() << "a missing file was loaded";
  } catch (const Vela::VelaException& ex) {
    EXPECT_EQ(ex.what(), folder.file("none.xml") + ": cannot be read: No such file or directory");
  }
  for (const char* kept : {"SystemFunctions=1,SysM=1,Snmp=1,SnmpTargetV2C=local", "SystemFunctions=1,SecM=1,Tls=1",
                           "Transport=1,DiffServCategory=OamCM", "Transport=1,DiffServCategory=OamFM"})
    EXPECT_TRUE(store.getTree().find(std::string("ManagedElement=1,") + kept)) << kept;
}

TEST(ModelFile, EveryTextSurvivesARestart) {
  const TemporaryFolder folder;
  const ModelFile file(folder.file("model.xml"));
  const std::string nasty = " <a href=\"x\">&amp;]]>'\t\r\n\xF0\x9F\x98\x80 ";
  MoStore store;
  store.setPersister([&](const MoTree& tree) { file.save(tree); });
  MoTransaction transaction(store);
  std::string dn;
  for (const char* step : {"ManagedElement=<\"&'>", ",SystemFunctions=1", ",SysM=1", ",Snmp=1"}) {
    dn += step;
    transaction.create(dn);
  }
  transaction.set(dn, "snmpId", nasty);
  transaction.set(dn, "engineId", "");
  transaction.setSequence(dn, "agentAddress",
                          {MoValue::Members{{"host", nasty}}, MoValue::Members{}, MoValue::Members{{"port", 7}}});
  transaction.create(dn + ",SnmpTargetV3=n");
  transaction.setText(dn + ",SnmpTargetV3=n", "authProtocol", "77");
  transaction.create(dn + ",SnmpViewV3=n");
  transaction.setSequence(dn + ",SnmpViewV3=n", "readOids", {"", nasty, ".1.3"});
  transaction.commit();

  struct stat status {};
  ASSERT_EQ(::stat(file.getPath().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777u, 0600u);
  EXPECT_EQ(folder.countFiles(), 1u);
  const std::string written = contentOf(file.getPath());
  MoStore restarted;
  file.load(restarted);
  EXPECT_EQ(ModelFile::format(restarted.getTree()), written);
  const MoObjectPtr snmp = restarted.getTree().find(dn);
  ASSERT_TRUE(snmp);
  EXPECT_EQ(snmp->getText("snmpId"), nasty);
  EXPECT_EQ(snmp->getText("engineId"), "");
  ASSERT_EQ(snmp->findAttribute("agentAddress")->valueCount, 3u);
  EXPECT_FALSE(snmp->findAttribute("agentAddress")->values[1].members[0].isSet);
  EXPECT_EQ(restarted.getTree().find(dn + ",SnmpTargetV3=n")->getSigned("authProtocol"), 77);
}

TEST(ModelFile, ClearPasswordsOfAFileDoNotStayInIt) {
  const TemporaryFolder folder;
  const ModelFile file(folder.file("model.xml"));
  const std::string text = inSnmp(
      "<SnmpTargetV3 id='n'><authKey><cleartext>true</cleartext><password>open "
      "sesame</password></authKey></SnmpTargetV3>");
  std::ofstream(file.getPath()) << text;
  MoStore store;
  store.setEncryptor([](const std::string&) -> std::string { throw Vela::VelaException("no key"); });
  EXPECT_THROW(file.load(store), Vela::VelaException);
  EXPECT_EQ(contentOf(file.getPath()), text);
  EXPECT_FALSE(store.getTree().find(Snmp));

  store.setEncryptor([](const std::string& clear) { return std::to_string(clear.size()); });
  file.load(store);
  EXPECT_THAT(contentOf(file.getPath()), HasSubstr("<cleartext>false</cleartext><password>11</password>"));
}

TEST(ModelFile, AFileThatCannotBeWrittenStaysAsItWas) {
  const TemporaryFolder folder;
  EXPECT_THROW(ModelFile(folder.file("no/folder/m.xml")).save(MoTree()), Vela::VelaException);
  std::filesystem::create_directory(folder.file("m.xml"));
  EXPECT_THROW(ModelFile(folder.file("m.xml")).save(MoTree()), Vela::VelaException);
  EXPECT_EQ(folder.countFiles(), 1u) << "the half-written file is taken away";
}

}  // namespace VelaNode
