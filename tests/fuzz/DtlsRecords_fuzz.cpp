/** Fuzzes what the agent's plugin reads of anybody's datagrams before a cookie, and of messages it sends on. */
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "DtlsCookies.h"
#include "DtlsRecords.h"
#include "MessageParts.h"

namespace {

using namespace SnmpdPlugin;

void require(bool isTrue) {
  if (!isTrue) std::abort();
}

bool isWithin(std::string_view part, std::string_view whole) {
  return part.empty() || (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view datagram(reinterpret_cast<const char*>(data), size);
  size_t read = 0;
  for (const std::string_view record : recordsOf(datagram)) {
    require(record.data() == datagram.data() + read);
    read += record.size();
    if (!isProtected(record)) isPartOfHandshake(record);
  }
  require(read <= size);

  static DtlsCookies cookies;
  if (const auto hello = clientHelloOf(datagram)) {
    require(isWithin(hello->cookie, datagram) && hello->random.size() == 32 && hello->sequence.size() == 8);
    require(!cookies.isValid("here", hello->cookie));
    // Nobody is sent more than he has sent.
    const std::string request = helloVerifyRequest(*hello, cookies.make("here"));
    require(request.size() <= size + 32 && recordsOf(request).size() == 1 && !clientHelloOf(request));
  }

  const std::string_view pdu = scopedPduOf(datagram);
  require(isWithin(pdu, datagram));
  isInform(pdu);
  return 0;
}
