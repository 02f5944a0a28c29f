#ifndef VELA_FM_SNMP_PDU_PARSER_H
#define VELA_FM_SNMP_PDU_PARSER_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "AlarmMibObjects.h"
#include "SnmpOid.h"

namespace VelaFmSnmp {

class SnmpAlarm;

/**
 * Decodes an SNMPv1/v2c-framed notification (RFC 3416 trap or inform, BER of RFC 3417) far enough to recognise the
 * adaptor's own. Takes any octets: nothing outside the buffer is read, and the cost is linear in its length. The
 * buffer must outlive parse.
 */
class PduParser {
 public:
  PduParser(const unsigned char* data, std::size_t length) : _data(data), _end(length) {}

  /** Decodes the message. False (and a trace line) when it is none; the accessors then hold what was found before. */
  bool parse();

  const std::string& getCommunity() const { return _community; }
  /** Value of snmpTrapOID.0; empty if there was none. */
  const SnmpOid& getTrapOid() const { return _trapOid; }
  bool isAlarmListRebuilt() const;
  /** From the columns of the alarm or alert table. */
  unsigned int getMajorType() const { return _majorType; }
  unsigned int getMinorType() const { return _minorType; }
  const std::string& getManagedObject() const { return _managedObject; }

  /** Whether this is the notification of that alarm or alert: same notification, types and managed object. */
  bool matches(const SnmpAlarm& alarm) const;
  bool matchesAlarmListRebuilt() const { return isAlarmListRebuilt(); }

 private:
  struct Element {
    unsigned char tag;
    std::size_t begin;
    std::size_t length;
  };

  void parseMessage();
  void parseVarbinds();
  void parseVarbind();
  void parseField(AlarmMib::Field field);

  void pushSequence(unsigned char tag);
  void popSequence();
  std::size_t currentEnd() const { return _sequenceEnds.empty() ? _end : _sequenceEnds.back(); }
  std::optional<Element> readHeader();
  Element readElement();
  Element readPrimitive(unsigned char tag);
  std::int64_t readInteger(unsigned char tag);
  unsigned int readUnsigned();
  std::string readString();
  SnmpOid readOid();

  const unsigned char* _data;
  std::size_t _end;
  std::size_t _position = 0;
  std::vector<std::size_t> _sequenceEnds;

  std::string _community;
  SnmpOid _trapOid = SnmpOid("");
  unsigned int _majorType = 0;
  unsigned int _minorType = 0;
  std::string _managedObject;
};

}  // namespace VelaFmSnmp
#endif
