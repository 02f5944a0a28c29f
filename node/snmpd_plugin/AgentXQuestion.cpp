#include "AgentXQuestion.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "ResponseSize.h"

// Exported by the agent library, but declared in none of its installed headers.
extern "C" int agentx_got_response(int operation, netsnmp_session*, int requestId, netsnmp_pdu*, void* cache);

namespace SnmpdPlugin {

namespace {

// RFC 2741, 6.1 and 6.2.16; the version as the library numbers it.
constexpr int AgentXVersion1 = 193;
constexpr int GetNext = 6;
constexpr int GetBulk = 7;
constexpr int NonDefaultContext = 0x08;
constexpr int NetworkByteOrder = 0x10;
constexpr int TooBig = 1;
constexpr int LastErrorOfSnmp = SNMP_ERR_INCONSISTENTNAME;

Oid nameOf(const netsnmp_variable_list& binding) { return {binding.name, binding.name + binding.name_length}; }

int compare(const Oid& left, const oid* right, std::size_t rightLength) {
  return snmp_oid_compare(left.data(), left.size(), right, rightLength);
}

bool isException(int type) { return type == SNMP_NOSUCHOBJECT || type == SNMP_NOSUCHINSTANCE; }

bool isValue(int type) {
  switch (type) {
    case ASN_INTEGER:
    case ASN_OCTET_STR:
    case ASN_OBJECT_ID:
    case ASN_IPADDRESS:
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
    case ASN_OPAQUE:
    case ASN_COUNTER64:
      return true;
    default:
      return false;
  }
}

void setName(netsnmp_variable_list& binding, const Oid& name) {
  snmp_set_var_objid(&binding, name.data(), name.size());
}

}  // namespace

bool AgentXQuestion::isEnd(const Part& part, const netsnmp_variable_list& answer) {
  return answer.type == SNMP_ENDOFMIBVIEW || !isBefore(answer, part.request->range_end, part.request->range_end_len);
}

AgentXQuestion::AgentXQuestion(const Call& call) : _call(call), _request(*call.info->asp) {}

void AgentXQuestion::ask(const Call& call) {
  auto* const question = new AgentXQuestion(call);  // belongs to the library until onAnswer
  question->choose();
  question->send();
}

void AgentXQuestion::choose() {
  const bool isRepeated = _call.info->mode == MODE_GETBULK;
  std::size_t most = _call.connection->bindingsPerResponse();
  if (isRepeated) {
    const std::size_t room = roomForBindings(_request);
    const std::size_t used = std::min(room, sizeOfAnswered(_request));
    most = std::min(most, _call.connection->bindingsWithin(room - used) + static_cast<std::size_t>(_request.vbcount));
  }
  most = std::max<std::size_t>(1, most);

  bool isAnyInclusive = false;
  int repeat = 0;
  for (auto* request = _call.parts; request != nullptr; request = request->next) {
    if (_parts.size() == most) {
      request->requestvb->type = ASN_PRIV_RETRY;
      continue;
    }
    const netsnmp_subtree& region = *request->subtree;
    Part part{request, Oid(region.start_a, region.start_a + region.start_len), nameOf(*request->requestvb),
              request->inclusive != 0};
    if (part.from < part.regionBegin) {
      part.from = part.regionBegin;
      part.isInclusive = true;
    }
    isAnyInclusive = isAnyInclusive || part.isInclusive;
    if (request->repeat > 0) repeat = repeat == 0 ? request->repeat : std::min(repeat, request->repeat);
    _parts.push_back(std::move(part));
  }
  const auto repeaters =
      std::stable_partition(_parts.begin(), _parts.end(), [](const Part& part) { return part.request->repeat <= 0; });
  _single = static_cast<std::size_t>(repeaters - _parts.begin());
  // Sub-agents answer an inclusive begin once, whatever they are asked for.
  if (repeat > 0 && !isAnyInclusive && _call.connection->takesGetBulk())
    _repetitions =
        std::clamp<std::size_t>((most - _single) / (_parts.size() - _single), 1, static_cast<std::size_t>(repeat) + 1);
}

std::size_t AgentXQuestion::bindingsAsked() const { return _single + _repetitions * (_parts.size() - _single); }

netsnmp_pdu* AgentXQuestion::makePdu() const {
  netsnmp_pdu* const pdu = snmp_pdu_create(isBulk() ? GetBulk : GetNext);
  if (pdu == nullptr) return nullptr;
  const netsnmp_session& subSession = *_call.session->subsession;
  pdu->version = AgentXVersion1;
  pdu->reqid = snmp_get_next_transid();
  pdu->transid = _request.pdu->transid;
  pdu->sessid = subSession.sessid;
  pdu->flags |= subSession.flags & NetworkByteOrder;
  if (const char* const context = _call.registration->contextName) {
    pdu->community = reinterpret_cast<u_char*>(strdup(context));
    pdu->community_len = std::strlen(context);
    pdu->flags |= NonDefaultContext;
  }
  if (isBulk()) {
    pdu->non_repeaters = static_cast<long>(_single);
    pdu->max_repetitions = static_cast<long>(_repetitions);
  }
  for (const Part& part : _parts)
    snmp_pdu_add_variable(pdu, part.from.data(), part.from.size(),
                          part.isInclusive ? ASN_PRIV_INCL_RANGE : ASN_PRIV_EXCL_RANGE, part.request->range_end,
                          part.request->range_end_len * sizeof(oid));
  return pdu;
}

void AgentXQuestion::send() {
  std::unique_ptr<AgentXQuestion> self(this);
  const std::vector<Part> parts = _parts;
  netsnmp_agent_request_info* const info = _call.info;
  netsnmp_pdu* const pdu = makePdu();
  _cache = netsnmp_create_delegated_cache(_call.master, _call.registration, info, _call.parts, _call.session);
  bool isSent = false;
  if (pdu != nullptr && _cache != nullptr) {
    for (const Part& part : parts) part.request->delegated = REQUEST_IS_DELEGATED;
    _isBeingSent = true;
    isSent = snmp_async_send(_call.session, pdu, onAnswer, this) != 0;
    _isBeingSent = false;
  }
  if (isSent) {
    self.release();
    return;
  }
  snmp_free_pdu(pdu);
  netsnmp_free_delegated_cache(_cache);
  for (const Part& part : parts) {
    part.request->delegated = REQUEST_IS_NOT_DELEGATED;
    netsnmp_set_request_error(info, part.request, SNMP_ERR_GENERR);
  }
}

int AgentXQuestion::onAnswer(int operation, netsnmp_session* session, int requestId, netsnmp_pdu* pdu, void* question) {
  auto* const asked = static_cast<AgentXQuestion*>(question);
  if (operation == NETSNMP_CALLBACK_OP_RESEND || asked->_isBeingSent) return 0;
  const std::unique_ptr<AgentXQuestion> self(asked);
  const bool isWaitedFor = netsnmp_handler_check_cache(self->_cache) != nullptr;
  if (operation != NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE || !isWaitedFor)
    return agentx_got_response(operation, session, requestId, pdu, self->_cache);
  CLEAR_SNMP_STRIKE_FLAGS(session->flags);
  netsnmp_free_delegated_cache(self->_cache);
  self->take(*pdu);
  return 1;
}

bool AgentXQuestion::findRegions() {
  bool areSame = true;
  for (const Part& part : _parts) {
    netsnmp_request_info& request = *part.request;
    netsnmp_subtree* const region =
        netsnmp_subtree_find(part.regionBegin.data(), part.regionBegin.size(), nullptr, _request.pdu->contextName);
    areSame = areSame && region == request.subtree;
    if (region == nullptr) {
      fail(request, SNMP_ERR_GENERR);
      continue;
    }
    // The library does not look whether what it keeps is still there.
    request.subtree = region;
    request.range_end = region->end_a;
    request.range_end_len = region->end_len;
  }
  return areSame;
}

void AgentXQuestion::take(const netsnmp_pdu& pdu) {
  for (const Part& part : _parts) part.request->delegated = REQUEST_IS_NOT_DELEGATED;
  if (!findRegions())
    askAgain();
  else if (pdu.errstat != SNMP_ERR_NOERROR)
    takeError(pdu);
  else
    takeBindings(pdu.variables);
  endSearchWhenFull(_request);
}

void AgentXQuestion::takeError(const netsnmp_pdu& pdu) {
  if (pdu.errstat == TooBig && (bindingsAsked() > 1 || pdu.variables != nullptr)) {
    takeTooLong(pdu.variables);
  } else if (isBulk()) {
    refuse();
  } else {
    const bool isKnown = pdu.errindex > 0 && static_cast<std::size_t>(pdu.errindex) <= _parts.size();
    const Part& part = _parts[isKnown ? static_cast<std::size_t>(pdu.errindex) - 1 : 0];
    fail(*part.request, isKnown && pdu.errstat <= LastErrorOfSnmp ? static_cast<int>(pdu.errstat) : SNMP_ERR_GENERR);
  }
}

void AgentXQuestion::takeTooLong(const netsnmp_variable_list* first) {
  _call.connection->wasTooLong(bindingsAsked());
  if (bindingsAsked() > 1) {
    askAgain();
    return;
  }
  const Part& part = _parts.front();
  netsnmp_request_info& request = *part.request;
  const int order = compare(part.from, first->name, first->name_length);
  if (!isBefore(*first, request.range_end, request.range_end_len)) {
    leaveRegion(_request, request);
  } else if (order < 0 || (order == 0 && part.isInclusive)) {
    if (isVisible(_request, *first)) reportLeftOut(*first);
    setName(*request.requestvb, nameOf(*first));
    request.requestvb->type = ASN_PRIV_RETRY;
    request.inclusive = 0;
  } else {
    fail(request, SNMP_ERR_TOOBIG);
  }
}

void AgentXQuestion::takeBindings(const netsnmp_variable_list* bindings) {
  _call.connection->answered(bindings);
  std::vector<Answers> answers(_parts.size());
  std::size_t count = 0;
  for (; bindings != nullptr; bindings = bindings->next_variable, ++count)
    answers[count < _parts.size() ? count : _single + (count - _single) % (_parts.size() - _single)].push_back(
        bindings);
  if (count == 0 || count > bindingsAsked() || (count < _parts.size() && !isBulk())) {
    refuse();
    return;
  }
  std::vector<std::size_t> counts;
  for (std::size_t i = 0; i < _parts.size(); ++i) {
    const auto found = countAnswers(_parts[i], answers[i]);
    if (!found) {
      refuse();
      return;
    }
    counts.push_back(*found);
  }
  for (std::size_t i = 0; i < _parts.size(); ++i) fill(_parts[i], answers[i], counts[i]);
}

/** What comes is no answer. */
void AgentXQuestion::refuse() {
  if (isBulk()) {
    _call.connection->refusedGetBulk();
    askAgain();
  } else {
    fail(*_parts.front().request, SNMP_ERR_GENERR);
  }
}

std::optional<std::size_t> AgentXQuestion::countAnswers(const Part& part, const Answers& answers) const {
  const oid* last = part.from.data();
  std::size_t lastLength = part.from.size();
  for (std::size_t i = 0; i < answers.size(); ++i) {
    const netsnmp_variable_list& answer = *answers[i];
    if (isEnd(part, answer)) return i;
    const int order = snmp_oid_compare(last, lastLength, answer.name, answer.name_length);
    const bool isInOrder = order < 0 || (order == 0 && i == 0 && part.isInclusive);
    if (!isInOrder || !(isValue(answer.type) || isException(answer.type))) return std::nullopt;
    last = answer.name;
    lastLength = answer.name_length;
  }
  return answers.size();
}

void AgentXQuestion::fill(const Part& part, const Answers& answers, std::size_t count) {
  netsnmp_request_info& request = *part.request;
  if (answers.empty()) {
    request.requestvb->type = ASN_PRIV_RETRY;
    return;
  }
  const bool isRepeated = _call.info->mode == MODE_GETBULK;
  // snmpd itself looks at what GETNEXT finds; where it could look at a GETBULK's, it would look at the wrong places.
  const bool isAllVisible = !isRepeated || isVisible(_request, *request.subtree);
  if (isRepeated) request.requestvb_start = nullptr;

  for (std::size_t i = 0; i < count; ++i) {
    const netsnmp_variable_list& answer = *answers[i];
    if (isException(answer.type) || (!isAllVisible && !isVisible(_request, answer)) || isTooLarge(_request, answer))
      continue;
    netsnmp_variable_list& binding = *request.requestvb;
    snmp_set_var_typed_value(&binding, answer.type, answer.val.string, answer.val_len);
    snmp_set_var_objid(&binding, answer.name, answer.name_length);
    if (request.repeat <= 0 || binding.next_variable == nullptr) {
      request.inclusive = 0;
      return;
    }
    --request.repeat;
    request.requestvb = binding.next_variable;
  }
  // What comes next is behind the last one seen, or in the next region.
  if (count > 0) {
    setName(*request.requestvb, nameOf(*answers[count - 1]));
    request.inclusive = 0;
  }
  request.requestvb->type = ASN_PRIV_RETRY;
  if (count < answers.size()) leaveRegion(_request, request);
}

void AgentXQuestion::fail(netsnmp_request_info& part, int error) {
  netsnmp_set_request_error(_call.info, &part, error);
  // Nothing else is waited for.
  _request.flags |= SNMP_AGENT_FLAGS_CANCEL_IN_PROGRESS;
}

void AgentXQuestion::askAgain() {
  for (const Part& part : _parts) part.request->requestvb->type = ASN_PRIV_RETRY;
}

}  // namespace SnmpdPlugin
