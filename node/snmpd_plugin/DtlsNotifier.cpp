#include "DtlsNotifier.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace SnmpdPlugin {

DtlsNotifier::DtlsNotifier(netsnmp_transport* face, const netsnmp_ep& endpoint)
    : DtlsTransport(face), _endpoint(endpoint), _signal(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE)) {
  if (_signal < 0) throw std::runtime_error(std::strerror(errno));
  std::memcpy(&_addresses.remote_addr, &endpoint.a, std::min(sizeof(_addresses.remote_addr), sizeof(endpoint.a)));
  useSocket(_signal);
}

DtlsNotifier::~DtlsNotifier() {
  if (_association) _association->detach(*this);
  close(_signal);
}

void DtlsNotifier::configure(const std::string& token, const std::string& value) {
  // Peers are named by a fingerprint or by the file of their certificate, fingerprints are what is compared.
  const auto fingerprint = [&value] {
    std::string plain = NodeTls::plainFingerprint(value);
    if (!plain.empty()) return plain;
    const NodeTls::CertificateFolder folder = DtlsContext::readFolder();
    const NodeTls::Certificate* certificate = folder.find(value);
    // A name that nobody has shall not become "anybody".
    return certificate == nullptr ? value : NodeTls::nodeFingerprintOf(certificate->get());
  };
  if (token == "localCert" || token == "our_identity") {
    _certificate = value;
  } else if (token == "peerCert" || token == "their_identity") {
    _expectation.required = {fingerprint()};
    _expectation.trusted.push_back(_expectation.required.front());
  } else if (token == "trustCert" || token == "trust_cert") {
    _expectation.trusted.push_back(fingerprint());
  } else if (token == "peerHostname" || token == "their_hostname") {
    constexpr const char* Any = "*";
    _expectation.hosts.clear();
    if (!value.empty() && value != Any) _expectation.hosts.push_back(value);
  }
}

bool DtlsNotifier::send(const void* message, size_t size, const netsnmp_tmStateReference* state) {
  if (state != nullptr) _securityName.assign(state->securityName, state->securityNameLen);
  if (!_association) {
    _expectation.names = {_securityName};
    _association = DtlsAssociation::to(_endpoint, _certificate);
    _association->attach(*this);
  }
  _association->send({static_cast<const char*>(message), size});
  return true;
}

void DtlsNotifier::deliver(const std::string& message) {
  _inbox.push_back(message);
  eventfd_write(_signal, 1);
}

DtlsTransport::Received DtlsNotifier::receive(void* buffer, size_t capacity) {
  Received received;
  eventfd_t count = 0;
  if (eventfd_read(_signal, &count) != 0 || _inbox.empty()) return received;
  const std::string message = std::move(_inbox.front());
  _inbox.pop_front();
  received.length = message.copy(static_cast<char*>(buffer), capacity);
  received.securityName = _securityName;
  received.addresses = _addresses;
  return received;
}

}  // namespace SnmpdPlugin
