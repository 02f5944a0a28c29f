#ifndef VELA_FM_SNMP_ADDRESS_RESOLVER_H
#define VELA_FM_SNMP_ADDRESS_RESOLVER_H

#include <Poco/Net/IPAddress.h>

#include <map>
#include <string>

namespace VelaFmSnmp {

/** Turns the address texts of targets into IP addresses. Names are looked up once until forget(); blocks meanwhile. */
class AddressResolver {
 public:
  AddressResolver();

  /** Literal IPv4 or IPv6 addresses only, without a look-up. */
  static bool parse(Poco::Net::IPAddress& result, const std::string& host);

  /** "IPv4" or "IPv6" in any case: the family that names must resolve to; anything else: either. */
  void setIpVersion(const std::string& ipVersion);
  /** Forgets what was looked up. */
  void forget() { _answers.clear(); }
  /** Throws ConfigurationFault when the text is no address and cannot be resolved to one of the wanted family. */
  Poco::Net::IPAddress resolve(const std::string& host);

 private:
  struct Answer {
    Poco::Net::IPAddress address;
    std::string failure; /**< empty: resolved */
  };

  Answer lookUp(const std::string& host) const;

  int _family;
  std::map<std::string, Answer> _answers;
};

}  // namespace VelaFmSnmp
#endif
