/**
 * Fuzzes the agent's end of a DTLS handshake whose cookie was valid: the input is a row of datagrams, each behind two
 * octets with its length.
 */
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string_view>
#include <vector>

#include "DtlsOpening.h"
#include "DtlsRecords.h"
#include "NetSnmp.h"

namespace {

using namespace SnmpdPlugin;

/** A folder with a certificate of the agent's; the program leaves it behind, as fuzzers do not end in good order. */
bool makeNode() {
  std::string folder = std::filesystem::temp_directory_path() / "dtls-fuzz-XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) return false;
  std::filesystem::create_directories(folder + "/tls/certs");
  std::filesystem::create_directories(folder + "/tls/private");
  setenv("SNMPCONFPATH", folder.c_str(), 1);
  netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_APPTYPE, "fuzz");
  netsnmp_container_init_list();
  netsnmp_certs_agent_init();
  const std::string command =
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=node "
      "-keyout " +
      folder + "/tls/private/node.key -out " + folder + "/tls/certs/node.crt 2>&1";
  return std::system(command.c_str()) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (!makeNode()) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static std::vector<char> message(65536);
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  auto session = std::make_unique<DtlsSession>(DtlsContext::get("node"), DtlsSession::Role::Server,
                                               [](const void*, size_t) { return true; });
  DtlsOpening opening(std::move(session), "random");
  while (rest.size() > 2 && !opening.session().isDead()) {
    const size_t length = static_cast<uint8_t>(rest[0]) << 8 | static_cast<uint8_t>(rest[1]);
    const std::string_view datagram = rest.substr(2, length);
    rest.remove_prefix(2 + datagram.size());
    if (opening.receive(datagram, message.data(), message.size()) != 0) std::abort();
    // Nobody who has no key of a trusted certificate's comes in.
    if (opening.session().isEstablished()) std::abort();
  }
  opening.session().onTimer();
  return 0;
}
