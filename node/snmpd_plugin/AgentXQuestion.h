#ifndef SNMPD_PLUGIN_AGENTX_QUESTION_H
#define SNMPD_PLUGIN_AGENTX_QUESTION_H

#include <cstddef>
#include <optional>
#include <vector>

#include "AgentXConnection.h"
#include "NetSnmp.h"
#include "ReadParts.h"

namespace SnmpdPlugin {

/**
 * A question to a sub-agent, and what becomes of it: as many of the next variables as fit a message, for the parts of a
 * GETNEXT or GETBULK that lie in its regions. What is not asked for or not answered is left for snmpd's next round.
 */
class AgentXQuestion {
 public:
  /** What snmpd calls a handler with; all but the connection live at least until snmpd is done with the request. */
  struct Call {
    netsnmp_mib_handler* master; /**< snmpd's own handler of sub-agents */
    netsnmp_handler_registration* registration;
    netsnmp_agent_request_info* info;
    netsnmp_request_info* parts;
    netsnmp_session* session;
    AgentXConnection* connection;
  };

  static void ask(const Call& call);

  AgentXQuestion(const AgentXQuestion&) = delete;
  AgentXQuestion& operator=(const AgentXQuestion&) = delete;
  ~AgentXQuestion() = default;

 private:
  struct Part {
    netsnmp_request_info* request;
    Oid regionBegin;
    Oid from;
    bool isInclusive;
  };
  using Answers = std::vector<const netsnmp_variable_list*>;

  explicit AgentXQuestion(const Call& call);
  /** Whether a binding tells that there is nothing more for a part in its region. */
  static bool isEnd(const Part& part, const netsnmp_variable_list& answer);
  bool isBulk() const { return _repetitions > 1; }
  std::size_t bindingsAsked() const;
  void choose();
  netsnmp_pdu* makePdu() const;
  void send();

  static int onAnswer(int operation, netsnmp_session* session, int requestId, netsnmp_pdu* pdu, void* question);
  void take(const netsnmp_pdu& pdu);
  void takeError(const netsnmp_pdu& pdu);
  void takeTooLong(const netsnmp_variable_list* first);
  void takeBindings(const netsnmp_variable_list* bindings);
  /** How many of the bindings answer a part; nothing when they are no answer. */
  std::optional<std::size_t> countAnswers(const Part& part, const Answers& answers) const;
  void fill(const Part& part, const Answers& answers, std::size_t count);
  void refuse();
  void fail(netsnmp_request_info& part, int error);
  void askAgain();
  /** Finds the regions anew: the sub-agent may have unregistered them meanwhile. False: one is another. */
  bool findRegions();

  const Call _call;
  netsnmp_agent_session& _request;
  netsnmp_delegated_cache* _cache = nullptr; /**< goes to whoever snmpd gives the answer to */
  std::vector<Part> _parts;                  /**< non-repeaters first */
  std::size_t _single = 0;                   /**< number of non-repeaters */
  std::size_t _repetitions = 1;
  bool _isBeingSent = false;
};

}  // namespace SnmpdPlugin
#endif
