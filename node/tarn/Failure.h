#ifndef TARN_FAILURE_H
#define TARN_FAILURE_H

#include <stdexcept>
#include <string>

namespace Tarn {

/** Why the tool could not do what it was asked: one line for the user, and the exit status to end with. */
class Failure : public std::runtime_error {
 public:
  static constexpr int Failed = 1;
  static constexpr int WrongUsage = 2;

  explicit Failure(const std::string& text, int exitStatus = Failed)
      : std::runtime_error(text), _exitStatus(exitStatus) {}
  int exitStatus() const { return _exitStatus; }

 private:
  int _exitStatus;
};

}  // namespace Tarn
#endif
