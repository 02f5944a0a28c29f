#ifndef VELA_EXCEPTION_H
#define VELA_EXCEPTION_H

#include <exception>
#include <string>

namespace Vela {

/** A failure with a printf-style text. The only exception type that the adaptor's states retry. */
class VelaException : public std::exception {
 public:
  VelaException() = default;
  /** Formats the reason; the code is 0. */
  explicit VelaException(const char* format, ...) __attribute__((format(printf, 2, 3)));
  /** Formats the reason and keeps a code for the catcher. */
  VelaException(int code, const char* format, ...) __attribute__((format(printf, 3, 4)));

  const char* what() const noexcept override { return _reason.c_str(); }
  const std::string& getReason() const { return _reason; }
  void setReason(const std::string& reason) { _reason = reason; }
  int getCode() const { return _code; }

 private:
  std::string _reason;
  int _code = 0;
};

/** The whole text of an exception: what() of one of Poco's is only its kind. */
std::string textOf(const std::exception& ex);

}  // namespace Vela
#endif
