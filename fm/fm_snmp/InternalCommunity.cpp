#include "InternalCommunity.h"

#include <net-snmp/net-snmp-config.h>
// The order of net-snmp's headers matters.
#include <net-snmp/net-snmp-includes.h>

#include <random>

#include "LoggingWrapper.h"
#include "PduParser.h"
#include "SnmpMaSession.h"
#include "SnmpPdu.h"
#include "SnmpUtil.h"
#include "TarnSpi.h"

namespace VelaFmSnmp {

namespace {

constexpr std::size_t RandomOctets = 16;
constexpr unsigned long long TellInterval = 60000;  // milliseconds

std::string makeRandom() {
  std::random_device source("/dev/urandom");
  std::string octets;
  while (octets.size() < RandomOctets) octets += static_cast<char>(source());
  return SnmpUtil::toHex(octets);
}

}  // namespace

InternalCommunity::InternalCommunity() : _random(makeRandom()), _expected(Vela::TarnSpi::InternalSecurityName) {}

void InternalCommunity::agreeOn(const SnmpMaSession& session) {
  SnmpPdu request(SNMP_MSG_SET);
  request.addVarbind(SnmpOid(Vela::TarnSpi::InternalCommunityObject), _random);
  _expected = session.sendPdu("internal community", request, nullptr) ? _random : Vela::TarnSpi::InternalSecurityName;
}

bool InternalCommunity::isIn(const unsigned char* datagram, std::size_t length) {
  PduParser parser(datagram, length);
  parser.parse();
  if (parser.getCommunity() == _expected) return true;
  ++_strangers;
  tellStrangers();
  return false;
}

void InternalCommunity::tellStrangers() {
  const unsigned long long now = SnmpUtil::getNow();
  if (_lastTold != 0 && now >= _lastTold && now - _lastTold < TellInterval) return;
  VELA_LOG(Vela::LogWarning, "Ignored %u datagrams at the internal listener that the master agent did not send",
           _strangers);
  _strangers = 0;
  _lastTold = now;
}

}  // namespace VelaFmSnmp
