#include "ConfigurationFault.h"

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

namespace VelaFmSnmp {

ConfigurationFault::ConfigurationFault(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::vector<char> text(static_cast<std::size_t>(length < 0 ? 0 : length) + 1);
  std::vsnprintf(text.data(), text.size(), format, again);
  va_end(again);
  setReason(text.data());
}

}  // namespace VelaFmSnmp
