#include "DtlsSession.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "DtlsRecords.h"
#include "PeerTrust.h"

namespace SnmpdPlugin {

namespace {

/** Octets of a datagram of the handshake, so small that no network on the way has to split it. */
constexpr long HandshakeMtu = 1200;
constexpr unsigned FirstRepeatMicroseconds = 500000;
constexpr unsigned LastRepeatMicroseconds = 2000000;

unsigned nextRepeat(SSL*, unsigned last) {
  return last == 0 ? FirstRepeatMicroseconds : std::min(2 * last, LastRepeatMicroseconds);
}

std::string describe(const X509* certificate) {
  // What it is refused for stands behind it and has to find place in a line, too.
  constexpr size_t MaxSubject = 60;
  return "the certificate of " + NodeTls::subjectOf(certificate).substr(0, MaxSubject) + " (" +
         NodeTls::nodeFingerprintOf(certificate) + ")";
}

}  // namespace

DtlsSession& DtlsSession::of(const SSL* ssl) { return *static_cast<DtlsSession*>(SSL_get_app_data(ssl)); }

void DtlsSession::prepare(SSL_CTX* context) {
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  SSL_CTX_set_cert_verify_callback(context, verifyPeer, nullptr);
  // Who opens a session has looked at the cookie.
  SSL_CTX_set_cookie_verify_cb(context, [](SSL*, const unsigned char*, unsigned) { return 1; });
  SSL_CTX_set_max_cert_list(context, MaxCertificates);
}

DtlsSession::DtlsSession(std::shared_ptr<DtlsContext> context, Role role, Send send)
    : _context(std::move(context)),
      _send(std::move(send)),
      _ssl(SSL_new(_context->ssl())),
      _awaitsHello(role == Role::Server) {
  BIO* bio = BIO_new(datagramMethod());
  if (!_ssl || bio == nullptr) {
    BIO_free(bio);
    throw NodeTls::TlsFault("no memory for a DTLS association");
  }
  BIO_set_data(bio, this);
  BIO_set_init(bio, 1);
  SSL_set_bio(_ssl.get(), bio, bio);
  SSL_set_app_data(_ssl.get(), this);
  SSL_set_mtu(_ssl.get(), HandshakeMtu);
  DTLS_set_timer_cb(_ssl.get(), nextRepeat);
  if (role == Role::Client)
    SSL_set_connect_state(_ssl.get());
  else
    SSL_set_accept_state(_ssl.get());
}

DtlsSession::~DtlsSession() {
  if (!_isDead) close();
}

void DtlsSession::listen() {
  // Where the client is does not concern the library.
  const NodeTls::LibraryPtr<BIO_ADDR> client(BIO_ADDR_new());
  ERR_clear_error();
  if (!client || DTLSv1_listen(_ssl.get(), client.get()) != 1) die("its hello cannot be read");
  ERR_clear_error();
  _awaitsHello = false;
}

void DtlsSession::handshake() {
  ERR_clear_error();
  const int result = SSL_do_handshake(_ssl.get());
  if (result != 1) {
    evaluate(result, "handshake");
    return;
  }
  _isEstablished = true;
  if (!_isPeerRefused) return;
  const std::string fault = std::exchange(_fault, {});
  close();
  _fault = fault;
}

size_t DtlsSession::receive(const void* datagram, size_t size, void* message, size_t capacity) {
  if (_isDead) return 0;
  _datagram = datagram;
  _datagramSize = size;
  if (_awaitsHello) listen();
  if (!_isEstablished && !_isDead) handshake();
  size_t length = 0;
  if (isEstablished()) {
    ERR_clear_error();
    const int result = SSL_read(_ssl.get(), message, static_cast<int>(capacity));
    if (result > 0)
      length = static_cast<size_t>(result);
    else
      evaluate(result, "reception");
  }
  _datagram = nullptr;
  return length;
}

bool DtlsSession::send(const void* message, size_t size) {
  if (!isEstablished()) return false;
  ERR_clear_error();
  const int result = SSL_write(_ssl.get(), message, static_cast<int>(size));
  if (result > 0) return !_isDead;
  evaluate(result, "transmission");
  // Nothing is kept for a second attempt, as the library might expect.
  if (!_isDead) die("transmission failed");
  return false;
}

void DtlsSession::close() {
  if (_isEstablished && _fault.empty()) {
    SSL_set_shutdown(_ssl.get(), 0);
    SSL_shutdown(_ssl.get());
  }
  ERR_clear_error();
  _isDead = true;
}

void DtlsSession::evaluate(int result, const char* operation) {
  const int kind = SSL_get_error(_ssl.get(), result);
  if (kind == SSL_ERROR_WANT_READ || kind == SSL_ERROR_WANT_WRITE) return;
  if (kind == SSL_ERROR_ZERO_RETURN) {
    die("");
    return;
  }
  const char* reason = ERR_reason_error_string(ERR_peek_error());
  die(std::string(operation) + " failed: " + (reason == nullptr ? "unknown reason" : reason));
  ERR_clear_error();
}

void DtlsSession::die(const std::string& fault) {
  _isDead = true;
  // What was found out first is the reason for what follows.
  if (_fault.empty()) _fault = fault;
}

CertificateChain DtlsSession::peerChain() const {
  if (!_isEstablished) return {};
  return chainOf(SSL_get0_verified_chain(_ssl.get()), SSL_get0_peer_certificate(_ssl.get()));
}

std::string DtlsSession::securityName() const {
  const CertificateChain chain = peerChain();
  return chain.empty() ? std::string() : CertificateMap::securityNameOf(chain, *DtlsContext::onFile());
}

std::optional<std::chrono::milliseconds> DtlsSession::timer() const {
  timeval left{};
  if (_isDead || DTLSv1_get_timeout(_ssl.get(), &left) != 1) return std::nullopt;
  return std::chrono::seconds(left.tv_sec) + std::chrono::milliseconds(left.tv_usec / 1000 + 1);
}

std::string DtlsSession::lapse() const { return lapseOf(peerChain(), *DtlsContext::onFile()); }

bool DtlsSession::hasKeys() const { return _isEstablished || SSL_get_state(_ssl.get()) == TLS_ST_SR_CHANGE; }

void DtlsSession::onTimer() {
  if (_isDead) return;
  ERR_clear_error();
  if (DTLSv1_handle_timeout(_ssl.get()) < 0) die("it does not answer");
}

// --- Datagrams

BIO_METHOD* DtlsSession::datagramMethod() {
  static BIO_METHOD* const method = [] {
    BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "datagram");
    BIO_meth_set_write(made, writeDatagram);
    BIO_meth_set_read(made, readDatagram);
    BIO_meth_set_ctrl(made, control);
    return made;
  }();
  return method;
}

int DtlsSession::writeDatagram(BIO* bio, const char* data, int size) {
  auto& session = *static_cast<DtlsSession*>(BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  if (session._send(data, static_cast<size_t>(size))) return size;
  // A full socket loses a datagram, as the network does; the handshake repeats its own.
  if (errno == EAGAIN || errno == ENOBUFS) return size;
  session.die(std::strerror(errno));
  return -1;
}

int DtlsSession::readDatagram(BIO* bio, char* buffer, int size) {
  auto& session = *static_cast<DtlsSession*>(BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  if (session._datagram == nullptr) {
    BIO_set_retry_read(bio);
    return -1;
  }
  const size_t length = std::min(session._datagramSize, static_cast<size_t>(size));
  std::memcpy(buffer, session._datagram, length);
  session._datagram = nullptr;
  return static_cast<int>(length);
}

long DtlsSession::control(BIO*, int command, long, void*) { return command == BIO_CTRL_FLUSH ? 1 : 0; }

// --- The peer's certificate

int DtlsSession::verifyPeer(X509_STORE_CTX* store, void*) {
  const auto* ssl = static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  DtlsSession& session = of(ssl);
  if (session.isTrusted(store)) return 1;
  // A server breaks off. A client goes through with the handshake and says good-bye before anything is sent: receivers
  // (snmptrapd is one) keep what is left of a handshake that was broken off, and it stands in the way of the next.
  session._isPeerRefused = true;
  return SSL_is_server(ssl) == 1 ? 0 : 1;
}

bool DtlsSession::isTrusted(X509_STORE_CTX* store) {
  X509* own = X509_STORE_CTX_get0_cert(store);
  std::vector<std::string> trusted = CertificateMap::fingerprints();
  trusted.insert(trusted.end(), _expectation.trusted.begin(), _expectation.trusted.end());
  auto refusal = refusalOf(store, *DtlsContext::onFile(), trusted);
  if (!refusal) {
    const std::string fault = expectationFault(chainOf(X509_STORE_CTX_get0_chain(store), own));
    if (!fault.empty()) refusal = {fault, X509_V_ERR_CERT_REJECTED};
  }
  if (refusal) _fault = describe(own) + " " + refusal->text;
  X509_STORE_CTX_set_error(store, refusal ? refusal->error : X509_V_OK);
  return !refusal;
}

bool DtlsSession::expect(PeerExpectation expectation) {
  _expectation = std::move(expectation);
  return !_isEstablished || expectationFault(peerChain()).empty();
}

std::string DtlsSession::expectationFault(const CertificateChain& chain) const {
  for (const std::string& required : _expectation.required) {
    const bool isThere = std::any_of(chain.begin(), chain.end(), [&](const X509* certificate) {
      return NodeTls::hasFingerprint(certificate, required);
    });
    if (!isThere) return "is not the expected one, " + required;
  }
  for (const std::string& host : _expectation.hosts) {
    if (X509_check_ip_asc(chain.front(), host.c_str(), 0) != 1 &&
        X509_check_host(chain.front(), host.data(), host.size(), 0, nullptr) != 1)
      return "does not name the expected host '" + host + "'";
  }
  return CertificateMap::impostureOf(chain, _expectation.names, *DtlsContext::onFile());
}

}  // namespace SnmpdPlugin
