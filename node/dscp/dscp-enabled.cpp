/** dscp-enabled: exit status 0 when this node marks its packets, 1 (and the reason) when it does not. Where the
 * commands that use the packet filter are run through another one, this one runs without the privilege and leaves it to
 * them. */
#include "DscpRules.h"

int main() {
  const int status = Dscp::runCommand("dscp-enabled", [] {
    if (!Dscp::isUserMode()) Dscp::requireFilter();
    if (!std::filesystem::exists(Dscp::configurationFile()))
      throw std::runtime_error("packet marking is not enabled: there is no " + Dscp::configurationFile().string());
    return Dscp::Success;
  });
  return status == Dscp::Success ? Dscp::Success : Dscp::NotEnabled;
}
