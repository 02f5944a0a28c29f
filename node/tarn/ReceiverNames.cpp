#include "ReceiverNames.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <sstream>
#include <string_view>
#include <thread>

namespace Tarn {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds LookUpTimeout{3};
constexpr std::string_view TrapSessionWord = "trapsess ";
/** A transport before the receiver's host, and the one for an IPv6 address. */
constexpr std::pair<std::string_view, std::string_view> Transports[] = {
    {"dtlsudp:", "dtlsudp6:"}, {"dtlsudp6:", "dtlsudp6:"}, {"udp:", "udp6:"}, {"udp6:", "udp6:"}, {"", "udp6:"}};

/** A trapsess line, cut before and behind the host. */
struct Receiver {
  std::string beginning;
  std::pair<std::string_view, std::string_view> transports;
  std::string host; /**< empty: there is nothing to look up, the line stands as it is */
  std::string port; /**< with its colon */
};

/** An address in the agent's notation; of IPv6 that is one in brackets, a bare one gets them by being looked up. */
bool isAddress(const std::string& host) {
  in_addr octets{};
  return host.front() == '[' || inet_pton(AF_INET, host.c_str(), &octets) == 1;
}

Receiver parse(const std::string& line) {
  Receiver receiver;
  if (line.rfind(TrapSessionWord, 0) != 0) return receiver;
  const size_t begin = line.rfind(' ') + 1;
  receiver.beginning = line.substr(0, begin);
  std::string endpoint = line.substr(begin);
  for (const auto& transports : Transports) {
    if (endpoint.rfind(transports.first, 0) != 0) continue;
    receiver.transports = transports;
    endpoint.erase(0, transports.first.size());
    break;
  }
  const size_t colon = endpoint.rfind(':');
  if (colon == std::string::npos || colon == 0) return receiver;
  receiver.port = endpoint.substr(colon);
  receiver.host = endpoint.substr(0, colon);
  if (isAddress(receiver.host)) receiver.host.clear();
  return receiver;
}

/** The first address of a name, an IPv6 one in brackets; empty when there is none. */
std::string lookUp(const std::string& host) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return {};
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> list(found, &freeaddrinfo);
  char text[NI_MAXHOST];
  if (getnameinfo(list->ai_addr, list->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) != 0) return {};
  return list->ai_family == AF_INET6 ? "[" + std::string(text) + "]" : text;
}

/** The threads of the names that take too long end with the process. */
class LookUps {
 public:
  void begin(const std::string& host) {
    if (_answers.count(host) != 0) return;
    std::packaged_task<std::string()> task([host] { return lookUp(host); });
    _answers.emplace(host, task.get_future().share());
    std::thread(std::move(task)).detach();
  }
  std::string await(const std::string& host) const {
    const auto& answer = _answers.at(host);
    return answer.wait_until(_end) == std::future_status::ready ? answer.get() : std::string();
  }

 private:
  const Clock::time_point _end = Clock::now() + LookUpTimeout;
  std::map<std::string, std::shared_future<std::string>> _answers;
};

}  // namespace

std::string resolveReceivers(const std::string& configuration, std::vector<std::string>& leftOut) {
  LookUps lookUps;
  std::vector<std::pair<std::string, Receiver>> lines;
  std::istringstream in(configuration);
  for (std::string line; std::getline(in, line);) {
    lines.emplace_back(line, parse(line));
    const std::string& host = lines.back().second.host;
    if (!host.empty()) lookUps.begin(host);
  }
  std::string resolved;
  for (const auto& [line, receiver] : lines) {
    if (receiver.host.empty()) {
      resolved += line + '\n';
      continue;
    }
    const std::string address = lookUps.await(receiver.host);
    if (address.empty()) {
      leftOut.push_back(receiver.host);
      continue;
    }
    const auto& [transport, transportV6] = receiver.transports;
    resolved += receiver.beginning + std::string(address.front() == '[' ? transportV6 : transport) + address +
                receiver.port + '\n';
  }
  return resolved;
}

}  // namespace Tarn
