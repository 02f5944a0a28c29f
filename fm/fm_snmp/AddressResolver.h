#ifndef VELA_FM_SNMP_ADDRESS_RESOLVER_H
#define VELA_FM_SNMP_ADDRESS_RESOLVER_H

#include <Poco/Net/IPAddress.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>

namespace VelaFmSnmp {

/**
 * Turns the address texts of targets into IP addresses.
 *
 * Names are looked up once per pass, all at the same time, by threads of the C library. A pass waits for a bounded time
 * in all, however many names there are: a name server that is down would otherwise hold the caller up for ten seconds a
 * name. An answer that comes later is there for the next pass.
 */
class AddressResolver {
 public:
  static constexpr std::chrono::milliseconds maxWait{2000};

  /** @param wait  how long a pass waits for all its names together */
  explicit AddressResolver(std::chrono::milliseconds wait = maxWait);
  ~AddressResolver();
  AddressResolver(const AddressResolver&) = delete;
  AddressResolver& operator=(const AddressResolver&) = delete;

  /** Literal IPv4 or IPv6 addresses only, without a look-up. */
  static bool parse(Poco::Net::IPAddress& result, const std::string& host);

  /** "IPv4" or "IPv6" in any case: the family that names must resolve to; anything else: either. */
  void setIpVersion(const std::string& ipVersion);
  /** Begins a pass: forgets what was looked up in the one before. */
  void forget();
  /** Begins to look a text up if it is a name. */
  void prepare(const std::string& host);
  /** Throws ConfigurationFault when the text is no address and cannot be resolved to one of the wanted family. */
  Poco::Net::IPAddress resolve(const std::string& host);

 private:
  class LookUp;
  struct Answer {
    Poco::Net::IPAddress address;
    std::string failure; /**< empty: resolved */
  };

  Answer lookUp(const std::string& host);
  Answer choose(const LookUp& lookUp) const;

  const std::chrono::milliseconds _maxWait;
  int _family;
  std::map<std::string, Answer> _answers;
  std::map<std::string, std::unique_ptr<LookUp>> _lookUps; /**< not asked for yet */
  std::chrono::milliseconds _waited{0};
};

}  // namespace VelaFmSnmp
#endif
