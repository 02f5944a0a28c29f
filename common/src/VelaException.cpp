#include "VelaException.h"

#include <Poco/Exception.h>

#include <cstdarg>
#include <cstdio>

namespace Vela {

namespace {

std::string formatText(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
  if (length > 0) std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  return text;
}

}  // namespace

VelaException::VelaException(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  _reason = formatText(format, arguments);
  va_end(arguments);
}

VelaException::VelaException(int code, const char* format, ...) : _code(code) {
  va_list arguments;
  va_start(arguments, format);
  _reason = formatText(format, arguments);
  va_end(arguments);
}

std::string textOf(const std::exception& ex) {
  const auto* poco = dynamic_cast<const Poco::Exception*>(&ex);
  return poco != nullptr ? poco->displayText() : ex.what();
}

}  // namespace Vela
