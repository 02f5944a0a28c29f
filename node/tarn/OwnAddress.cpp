#include "OwnAddress.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <memory>

namespace Tarn {

namespace {

bool isAddressOfOne(const std::string& host) {
  in_addr address{};
  return inet_pton(AF_INET, host.c_str(), &address) == 1 && address.s_addr != htonl(INADDR_ANY);
}

std::string addressOfInterface() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return {};
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> all(list, &freeifaddrs);
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    const bool isUp = (entry->ifa_flags & IFF_UP) != 0 && (entry->ifa_flags & IFF_LOOPBACK) == 0;
    if (!isUp || entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    char text[INET_ADDRSTRLEN];
    const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
    if (inet_ntop(AF_INET, &address->sin_addr, text, sizeof text) != nullptr) return text;
  }
  return {};
}

}  // namespace

std::string ownIpv4Address(const std::vector<ListenAddress>& addresses) {
  for (const ListenAddress& address : addresses)
    if (isAddressOfOne(address.host)) return address.host;
  const std::string found = addressOfInterface();
  return found.empty() ? "127.0.0.1" : found;
}

}  // namespace Tarn
