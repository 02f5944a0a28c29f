#include "HexMask.h"

#include <LoggingWrapper.h>

namespace VelaFmSnmp {

namespace {

/** Value of a hexadecimal digit, -1 if it is none. */
int digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool convertHexMask(unsigned char* buffer, int* length, int size, const char* text) {
  *length = 0;
  int count = 0;
  for (const char* position = text; *position != '\0';) {
    if (count > 0 && digit(*position) < 0) {
      if (*position != '.' && *position != ':') {
        VELA_LOG(Vela::LogError, "invalid MASK, delimiter=%d\n", *position);
        return false;
      }
      ++position;
    }
    const int high = digit(*position);
    const int low = high < 0 ? -1 : digit(position[1]);
    if (low < 0) {
      VELA_LOG(Vela::LogError, "invalid MASK\n");
      return false;
    }
    if (count == size) {
      VELA_LOG(Vela::LogError, "MASK too long\n");
      return false;
    }
    buffer[count++] = static_cast<unsigned char>(high << 4 | low);
    position += 2;
  }
  *length = count;
  return true;
}

}  // namespace VelaFmSnmp
