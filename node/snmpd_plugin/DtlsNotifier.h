#ifndef SNMPD_PLUGIN_DTLS_NOTIFIER_H
#define SNMPD_PLUGIN_DTLS_NOTIFIER_H

#include <deque>
#include <memory>
#include <string>

#include "DtlsAssociation.h"
#include "DtlsTransport.h"

namespace SnmpdPlugin {

/** The transport of one session of the agent's towards a receiver of notifications, which never makes it wait. */
class DtlsNotifier : public DtlsTransport, private DtlsAssociation::User {
 public:
  DtlsNotifier(netsnmp_transport* face, const netsnmp_ep& endpoint);
  ~DtlsNotifier() override;

  Received receive(void* buffer, size_t capacity) override;
  bool send(const void* message, size_t size, const netsnmp_tmStateReference* state) override;
  void configure(const std::string& token, const std::string& value) override;
  const netsnmp_sockaddr_storage& address() const override { return _addresses.remote_addr; }

 private:
  const PeerExpectation& expectation() const override { return _expectation; }
  void deliver(const std::string& message) override;

  const netsnmp_ep _endpoint;
  netsnmp_indexed_addr_pair _addresses{};
  std::string _certificate; /**< the one to present; empty: the node's default */
  PeerExpectation _expectation;
  std::string _securityName;                     /**< of what is sent; responses are expected under it */
  std::shared_ptr<DtlsAssociation> _association; /**< from the first message on, with the settings of that moment */
  int _signal;                                   /**< descriptor that is readable while messages are there */
  std::deque<std::string> _inbox;
};

}  // namespace SnmpdPlugin
#endif
