#ifndef SNMPD_PLUGIN_DTLS_SESSION_H
#define SNMPD_PLUGIN_DTLS_SESSION_H

#include <openssl/ssl.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CertificateMap.h"
#include "DtlsContext.h"

namespace SnmpdPlugin {

/** Whom a session is to accept at the other end, in addition to those whom CertificateMap trusts. */
struct PeerExpectation {
  std::vector<std::string> trusted;  /**< further fingerprints, plain */
  std::vector<std::string> required; /**< fingerprints each of which the peer or one of its issuers must have */
  std::vector<std::string> hosts;    /**< names or addresses that the peer's certificate must have, all of them */
  std::vector<std::string> names;    /**< security names one of which it must have, if certificates on file have any */
};

/**
 * One DTLS association with a peer (RFC 6347, and RFC 6353, 5.3). It has no socket: whoever owns it hands it the
 * peer's datagrams and sends those that it makes. Nothing here waits.
 */
class DtlsSession {
 public:
  enum class Role { Client, Server };
  /** Sends a datagram; false when that failed, with errno set. Called while an operation of the session runs. */
  using Send = std::function<bool(const void* data, size_t size)>;

  /** Sets up what all associations of a context share. */
  static void prepare(SSL_CTX* context);

  /** As a server it takes a client's hello with a cookie first, which has been found valid. */
  DtlsSession(std::shared_ptr<DtlsContext> context, Role role, Send send);
  DtlsSession(const DtlsSession&) = delete;
  DtlsSession& operator=(const DtlsSession&) = delete;
  ~DtlsSession();

  /** False: the association is established already, and its peer is another. */
  bool expect(PeerExpectation expectation);
  /** Begins the handshake of a client. */
  void connect() { handshake(); }
  /** Takes a datagram. Yields the length of the message in it, which goes to `message`; 0: there was none for it. */
  size_t receive(const void* datagram, size_t size, void* message, size_t capacity);
  /** Sends a message over an established association; false: it failed, and the association with it. */
  bool send(const void* message, size_t size);
  /** Tells the peer that the association ends. Once more: tells it again. */
  void close();

  bool isEstablished() const { return _isEstablished && !_isDead; }
  /** Whether it can be used no more; fault() says why. */
  bool isDead() const { return _isDead; }
  /** Empty when the peer ended it in good order. */
  const std::string& fault() const { return _fault; }
  /** Whether protected records can be read, the last ones of the handshake among them. Of a server. */
  bool hasKeys() const;
  /** The security name of the peer of an established association, by the rows of this moment; empty: it has none. */
  std::string securityName() const;
  /** Why the peer of an established association is trusted no more, as lapseOf. */
  std::string lapse() const;
  /** When onTimer wants to be called, if at all. */
  std::optional<std::chrono::milliseconds> timer() const;
  /** Repeats what was lost on the way. */
  void onTimer();

 private:
  struct SslDeleter {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
  };

  static DtlsSession& of(const SSL* ssl);
  static BIO_METHOD* datagramMethod();
  static int writeDatagram(BIO* bio, const char* data, int size);
  static int readDatagram(BIO* bio, char* buffer, int size);
  static long control(BIO* bio, int command, long number, void* pointer);
  static int verifyPeer(X509_STORE_CTX* store, void*);

  /** Takes the client's hello. */
  void listen();
  void handshake();
  /** Takes the result of an operation of the library. */
  void evaluate(int result, const char* operation);
  void die(const std::string& fault);
  bool isTrusted(X509_STORE_CTX* store);
  /** The peer's verified certificates, its own first. Empty before the association is established. */
  CertificateChain peerChain() const;
  std::string expectationFault(const CertificateChain& chain) const;

  std::shared_ptr<DtlsContext> _context;
  const Send _send;
  PeerExpectation _expectation;
  std::unique_ptr<SSL, SslDeleter> _ssl;
  const void* _datagram = nullptr; /**< the one being received; null: it was read */
  size_t _datagramSize = 0;
  bool _awaitsHello;
  bool _isEstablished = false;
  bool _isDead = false;
  bool _isPeerRefused = false;
  std::string _fault;
};

}  // namespace SnmpdPlugin
#endif
