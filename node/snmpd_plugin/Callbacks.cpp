#include "Callbacks.h"

namespace SnmpdPlugin {

std::vector<snmp_gen_callback> takeCallbacks(int major, int minor) {
  std::vector<snmp_gen_callback> taken;
  for (auto* entry = snmp_callback_list(major, minor); entry; entry = entry->next) taken.push_back(*entry);
  for (const snmp_gen_callback& callback : taken)
    snmp_unregister_callback(major, minor, callback.sc_callback, callback.sc_client_arg, 1);
  return taken;
}

}  // namespace SnmpdPlugin
