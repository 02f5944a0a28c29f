#include "TlsConfigurator.h"

#include <gtest/gtest.h>

#include <string>

#include "ConfigurationFault.h"

using namespace VelaFmSnmp;

TEST(TlsConfigurator, encodesFingerprintsOfHashesThatCanBeTrusted) {
  const struct {
    std::string text;
    std::string encoded; /**< empty: refused */
  } cases[] = {
      {std::string(40, 'a'), "\x02" + std::string(20, '\xaa')},
      {std::string(64, 'B'), "\x04" + std::string(32, '\xbb')},
      {std::string(128, '1'), "\x06" + std::string(64, '\x11')},
      {std::string(32, 'a'), ""},  // MD5
      {std::string(42, 'a'), ""},
      {std::string(39, 'a') + "x", ""},
      {"", ""},
  };
  for (const auto& test : cases) {
    if (test.encoded.empty()) {
      EXPECT_THROW(TlsConfigurator::encodeFingerPrint(test.text.c_str()), ConfigurationFault) << test.text;
    } else {
      EXPECT_EQ(TlsConfigurator::encodeFingerPrint(test.text.c_str()), test.encoded) << test.text;
    }
  }
}
