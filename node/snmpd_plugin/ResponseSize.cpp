#include "ResponseSize.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace SnmpdPlugin {

namespace {

std::size_t sizeWithHeader(std::size_t content) {
  std::size_t lengthOctets = 1;
  if (content > 0x7f)
    for (std::size_t rest = content; rest != 0; rest >>= 8) ++lengthOctets;
  return 1 + lengthOctets + content;
}

std::size_t sizeOfOid(const oid* name, std::size_t length) {
  std::size_t size = 1;  // the first two numbers
  for (std::size_t i = 2; i < length; ++i) {
    auto rest = static_cast<std::uint32_t>(name[i]);
    do ++size;
    while ((rest >>= 7) != 0);
  }
  return size;
}

/** A number takes as many octets as it needs with its sign. */
std::size_t sizeOfNumber(std::int64_t number) {
  std::size_t size = 1;
  for (; number < -0x80 || number > 0x7f; number >>= 8) ++size;
  return size;
}

std::size_t sizeOfNumber(const counter64& number) {
  if (number.high == 0) return sizeOfNumber(static_cast<std::int64_t>(number.low & 0xffffffff));
  return sizeof(std::uint32_t) + sizeOfNumber(static_cast<std::int64_t>(number.high & 0xffffffff));
}

std::size_t sizeOfValue(const netsnmp_variable_list& binding) {
  constexpr std::size_t OpaqueHeader = 4;  // of the agent library's own types
  switch (binding.type) {
    case ASN_INTEGER:
      return sizeOfNumber(*binding.val.integer);
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
      return sizeOfNumber(*binding.val.integer & 0xffffffff);
    case ASN_COUNTER64:
      return sizeOfNumber(*binding.val.counter64);
    case ASN_OBJECT_ID:
      return sizeOfOid(binding.val.objid, binding.val_len / sizeof(oid));
    case ASN_OCTET_STR:
    case ASN_IPADDRESS:
    case ASN_BIT_STR:
      return binding.val_len;
    default:
      return binding.val_len + OpaqueHeader;
  }
}

/** Octets of msgAuthenticationParameters (RFC 3414, 6.3.1, 7.3.1; RFC 7860). */
std::size_t authenticationOctets(const netsnmp_pdu& pdu) {
  constexpr std::size_t Hmac96 = 12;
  constexpr std::size_t Longest = 48;
  if (pdu.securityLevel == SNMP_SEC_LEVEL_NOAUTH) return 0;
  const usmUser* const user =
      usm_get_user(pdu.securityEngineID, pdu.securityEngineIDLen, const_cast<char*>(pdu.securityName));
  const bool isHmac96 =
      user != nullptr && (snmp_oid_compare(user->authProtocol, user->authProtocolLen, usmHMACMD5AuthProtocol,
                                           OID_LENGTH(usmHMACMD5AuthProtocol)) == 0 ||
                          snmp_oid_compare(user->authProtocol, user->authProtocolLen, usmHMACSHA1AuthProtocol,
                                           OID_LENGTH(usmHMACSHA1AuthProtocol)) == 0);
  return isHmac96 ? Hmac96 : Longest;
}

/** Octets of a response around its variable bindings. What has no fixed length is counted with the most it can take. */
std::size_t sizeAroundBindings(const netsnmp_pdu& pdu) {
  constexpr std::size_t Sequence = 4;
  constexpr std::size_t Text = 2;
  constexpr std::size_t Version = 3;
  constexpr std::size_t Integer = 6;
  constexpr std::size_t Pdu = Sequence + Integer + 3 + 4 + Sequence;  // with request id, error status and index
  if (pdu.version != SNMP_VERSION_3) return Sequence + Version + Sequence + pdu.community_len + Pdu;

  constexpr std::size_t Global = 2 + Integer + Integer + 3 + 3;
  constexpr std::size_t Encryption = Sequence + 8 + 8;  // with padding and salt
  const bool isEncrypted = pdu.securityLevel == SNMP_SEC_LEVEL_AUTHPRIV;
  std::size_t security = Text;
  if (pdu.securityModel == SNMP_SEC_MODEL_USM)
    security = 3 + 3 + Text + pdu.securityEngineIDLen + Integer + Integer + Text + pdu.securityNameLen + Text +
               authenticationOctets(pdu) + Text + (isEncrypted ? Encryption : 0);
  return Sequence + Version + Global + security + Sequence + Text + pdu.contextEngineIDLen + Text + pdu.contextNameLen +
         Pdu;
}

/** What snmpd takes a binding for that it has found. When the sum is larger than a message, it cuts in its own way. */
std::size_t sizeToSnmpd(const netsnmp_variable_list& binding) {
  const bool isCounted = binding.type != ASN_PRIV_RETRY && (binding.type != ASN_NULL || binding.name_length != 0);
  if (!isCounted) return 0;
  return binding.name_length + (binding.type == ASN_OBJECT_ID ? binding.val_len / 2 : binding.val_len);
}

/** The variable bindings of a GETBULK's response, in the order in which they stand in it. */
class Response {
 public:
  explicit Response(netsnmp_agent_session& request)
      : _request(request),
        _single(static_cast<std::size_t>(std::clamp<long>(request.pdu->errstat, 0, request.vbcount))),
        _columns(static_cast<std::size_t>(request.vbcount) - _single),
        _rows(static_cast<std::size_t>(std::max(request.pdu->errindex, 0L))) {
    netsnmp_variable_list* binding = request.pdu->variables;
    for (std::size_t i = 0; i < _single && binding != nullptr; ++i, binding = binding->next_variable)
      _bindings.push_back(binding);
    for (std::size_t row = 0; row < _rows; ++row)
      for (std::size_t column = 0; column < _columns; ++column)
        _bindings.push_back(request.bulkcache[column * _rows + row]);
  }

  /** Where the response ends: the place of the first binding that it has no room for, or the number of bindings. */
  std::size_t findEnd() const;
  std::size_t size() const { return _bindings.size(); }
  /** Gives up what stands there and behind it. */
  void endAt(std::size_t place);

 private:
  void limit(netsnmp_request_info& part, std::size_t column, std::size_t rows);

  netsnmp_agent_session& _request;
  const std::size_t _single;  /**< non-repeaters */
  const std::size_t _columns; /**< repeaters */
  const std::size_t _rows;
  std::vector<netsnmp_variable_list*> _bindings;
};

std::size_t Response::findEnd() const {
  const std::size_t room = roomForBindings(_request);
  std::size_t used = 0;
  std::size_t usedToSnmpd = 0;
  // A column that has come to the end of the MIB repeats its last binding.
  std::vector<const netsnmp_variable_list*> last(_columns, nullptr);
  for (std::size_t place = 0; place < _bindings.size(); ++place) {
    const netsnmp_variable_list* binding = _bindings[place];
    if (binding->type == ASN_PRIV_STOP) return place;
    usedToSnmpd += sizeToSnmpd(*binding);
    if (place >= _single) {
      auto*& former = last[(place - _single) % _columns];
      if (former != nullptr && former->type == SNMP_ENDOFMIBVIEW) binding = former;
      former = binding;
    }
    if (isAnswered(*binding)) used += encodedSize(*binding);
    if (used > room || usedToSnmpd > static_cast<std::size_t>(_request.pdu->msgMaxSize)) return place;
  }
  return _bindings.size();
}

void Response::endAt(std::size_t place) {
  for (std::size_t i = place; i < _bindings.size(); ++i) {
    // Encoding ends at this type; without a name, snmpd would change it.
    _bindings[i]->type = i == place ? ASN_PRIV_STOP : ASN_NULL;
    if (i >= _single + _columns) _bindings[i]->name_length = 0;
    snmp_set_var_value(_bindings[i], nullptr, 0);
  }
  if (_bindings[place]->name_length == 0)
    snmp_set_var_objid(_bindings[place], _bindings.front()->name, _bindings.front()->name_length);
  for (std::size_t i = 0; i < _single + _columns; ++i) {
    netsnmp_request_info& part = _request.requests[i];
    if (part.requestvb == nullptr) continue;
    if (i >= _single)
      limit(part, i - _single, place <= i ? 0 : (place - i - 1) / _columns + 1);
    else if (i >= place)
      part.requestvb->type = ASN_PRIV_STOP;
  }
}

/** Leaves a part of the request no more rows than these. */
void Response::limit(netsnmp_request_info& part, std::size_t column, std::size_t rows) {
  netsnmp_variable_list** const first = _request.bulkcache + column * _rows;
  const auto row = static_cast<std::size_t>(std::find(first, first + _rows, part.requestvb) - first);
  if (row < rows) {
    part.repeat = static_cast<int>(rows - row) - 1;
    return;
  }
  // A part that has a binding with a type, and no repetitions left, is done.
  part.requestvb = *first;
  if (!isAnswered(**first)) (*first)->type = ASN_PRIV_STOP;
  part.requestvb_start = nullptr;
  part.repeat = 0;
}

}  // namespace

bool isAnswered(const netsnmp_variable_list& binding) {
  return binding.type != ASN_NULL && binding.type != ASN_PRIV_RETRY && binding.type != ASN_PRIV_STOP;
}

std::size_t encodedSize(const netsnmp_variable_list& binding) {
  return sizeWithHeader(sizeWithHeader(sizeOfOid(binding.name, binding.name_length)) +
                        sizeWithHeader(sizeOfValue(binding)));
}

std::size_t roomForBindings(const netsnmp_agent_session& request) {
  const auto limit = static_cast<std::size_t>(std::max(request.pdu->msgMaxSize, 0L));
  const std::size_t around = sizeAroundBindings(*request.pdu);
  return limit > around ? limit - around : 0;
}

std::size_t sizeOfAnswered(const netsnmp_agent_session& request) {
  std::size_t size = 0;
  for (const auto* binding = request.pdu->variables; binding != nullptr; binding = binding->next_variable)
    if (isAnswered(*binding)) size += encodedSize(*binding);
  return size;
}

void endWhenFull(netsnmp_agent_session& request) {
  if (request.bulkcache == nullptr) return;
  Response response(request);
  const std::size_t end = response.findEnd();
  if (end < response.size()) response.endAt(end);
}

}  // namespace SnmpdPlugin
