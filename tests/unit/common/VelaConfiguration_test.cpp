#include "VelaConfiguration.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <string>

#include "TarnSpiVersion.h"
#include "TemporaryFolder.h"
#include "VelaException.h"

namespace {

using Vela::VelaConfiguration;

class VelaConfigurationTest : public ::testing::Test {
 protected:
  std::string file(const std::string& content) const {
    std::ofstream(_folder.file("config.xml")) << content;
    return _folder.file("config.xml");
  }

  TemporaryFolder _folder;
  VelaConfiguration _configuration;
};

TEST_F(VelaConfigurationTest, ReadsTypedTextsOfDirectChildrenOnly) {
  ::setenv("VELA_CONFIGURATION_TEST", "/somewhere", 1);
  _configuration.load(
      file("<R><n> 42 </n><empty> "
           "</empty><unset>${NO_SUCH_VARIABLE}</unset><path>${VELA_CONFIGURATION_TEST}/x${NO_SUCH_VARIABLE}</path>"
           "<deep><n>7</n></deep><big>18446744073709551615</big></R>"));
  const auto roots = _configuration.findElements("R");
  ASSERT_EQ(roots.size(), 1u);
  const Poco::XML::Element& root = *roots.front();
  int number = 0;
  EXPECT_TRUE(VelaConfiguration::getInt(root, "n", number));
  EXPECT_EQ(number, 42);
  unsigned long long big = 0;
  EXPECT_TRUE(VelaConfiguration::getUInt64(root, "big", big));
  EXPECT_EQ(big, 18446744073709551615ull);
  std::string path;
  EXPECT_TRUE(VelaConfiguration::getText(root, "path", path));
  EXPECT_EQ(path, "/somewhere/x");
  bool flag = true;
  for (const char* name : {"missing", "empty", "unset"}) {
    EXPECT_FALSE(VelaConfiguration::getInt(root, name, number) || VelaConfiguration::getBool(root, name, flag) ||
                 VelaConfiguration::getUInt64(root, name, big) || VelaConfiguration::getText(root, name, path))
        << name;
  }
  EXPECT_EQ(number, 42) << "a missing element must leave the default";
  EXPECT_EQ(path, "/somewhere/x");
  EXPECT_EQ(_configuration.findElements("n").size(), 2u);
}

TEST_F(VelaConfigurationTest, ReadsBooleansInEveryForm) {
  for (const auto& [text, value] : std::map<std::string, bool>{{"TRUE", true},
                                                               {"Yes", true},
                                                               {"on", true},
                                                               {"1", true},
                                                               {"7", true},
                                                               {"false", false},
                                                               {"NO", false},
                                                               {"Off", false},
                                                               {"0", false}}) {
    _configuration.load(file("<R><b>" + text + "</b></R>"));
    bool flag = !value;
    EXPECT_TRUE(VelaConfiguration::getBool(*_configuration.findElements("R").front(), "b", flag)) << text;
    EXPECT_EQ(flag, value) << text;
  }
}

TEST_F(VelaConfigurationTest, AValueOfTheWrongTypeIsRefusedAndNamed) {
  _configuration.load(file("<R><n>12x</n><b>perhaps</b><u>-1</u></R>"));
  const Poco::XML::Element& root = *_configuration.findElements("R").front();
  int number = 0;
  bool flag = false;
  unsigned long long big = 0;
  EXPECT_THROW(VelaConfiguration::getInt(root, "n", number), Vela::VelaException);
  EXPECT_THROW(VelaConfiguration::getBool(root, "b", flag), Vela::VelaException);
  EXPECT_THROW(VelaConfiguration::getUInt64(root, "u", big), Vela::VelaException);
}

TEST_F(VelaConfigurationTest, ABrokenFileNamesFileLineAndReason) {
  const std::string broken = file("<R>\n  <a>\n</R>\n");
  try {
    _configuration.load(broken);
    FAIL() << "loaded";
  } catch (const Vela::VelaException& ex) {
    EXPECT_EQ(std::string(ex.what()).find(broken + ":3: "), 0u) << ex.what();
  }
  EXPECT_FALSE(_configuration.isLoaded());
  EXPECT_THROW(_configuration.load(_folder.file("missing.xml")), Vela::VelaException);
}

TEST(TarnSpiVersion, OrdersByNumberAndRefusesEverythingElse) {
  using Vela::TarnSpiVersion;
  EXPECT_TRUE(TarnSpiVersion::fromString("1.9.0") < TarnSpiVersion::fromString("1.10.0"));
  EXPECT_FALSE(TarnSpiVersion::fromString("2.0.0") < TarnSpiVersion::fromString("1.99.99"));
  EXPECT_TRUE(TarnSpiVersion::fromString("1.2.3") < TarnSpiVersion::fromString("1.2.4"));
  for (const char* text :
       {"", "1", "1.2", "1.2.3.4", "1..3", "a.b.c", "1.2.3 ", "1.-2.3", " 1.2.3", "1.2.99999999999"}) {
    try {
      TarnSpiVersion::fromString(text);
      ADD_FAILURE() << "accepted '" << text << "'";
    } catch (const Vela::VelaException& ex) {
      EXPECT_EQ(std::string(ex.what()), std::string("Failed to parse tarn spi-revision: '") + text + "'");
    }
  }
}

}  // namespace
