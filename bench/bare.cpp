// What the node is measured against: the least that a sub-agent can be made of with the agent library, and a receiver
// that only counts.
//
//   bench_bare notify SOCKET COUNT          sends notifications, at most 32 of them not acknowledged
//   bench_bare table SOCKET ROWS            serves a table of the alarm table's columns until it is ended
//   bench_bare receive COUNT PORT...        receives so many datagrams at each port; tells when the last one has come
//
// Each prints one line when it is ready and, unless it serves, one with "SECONDS MICROSECONDS", the time of the
// processor per notification being the latter.

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <arpa/inet.h>
#include <net-snmp/agent/agent_trap.h>
#include <net-snmp/agent/table_container.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

extern "C" {
extern netsnmp_session* main_session;
}

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned Window = 32;
constexpr oid Table[] = {1, 3, 6, 1, 4, 1, 61234, 183, 4, 1, 3, 5};
constexpr oid Entry[] = {1, 3, 6, 1, 4, 1, 61234, 183, 4, 1, 3, 5, 1, 0, 0};
constexpr std::size_t ColumnAt = std::size(Entry) - 2;
constexpr oid Notification[] = {1, 3, 6, 1, 4, 1, 61234, 183, 4, 2, 0, 1};
constexpr oid TrapOid[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};
constexpr oid Resource[] = {1, 3, 6, 1, 4, 1, 61234, 1, 2, 3};
constexpr unsigned FirstColumn = 2;
constexpr unsigned LastColumn = 15;

// As long as those of the alarms that the node is measured with.
const std::string Problem = "Storm 1, alarm 10000";
const std::string Source = "ManagedElement=1,Storm=10000";
const std::string Text = "Alarm of a storm";
const std::string Time = "\x07\xea\x0b\x15\x15\x2d\x34\x05+\x01\x01";

void setColumn(netsnmp_variable_list* binding, unsigned column, unsigned row) {
  const auto text = [binding](const std::string& value) {
    snmp_set_var_typed_value(binding, ASN_OCTET_STR, value.data(), value.size());
  };
  const auto number = [binding](u_char type, long value) { snmp_set_var_typed_integer(binding, type, value); };
  switch (column) {
    case 2:
    case 3:
      return number(ASN_UNSIGNED, row);
    case 4:
      return text(Problem);
    case 5:
      return text(Source);
    case 7:
    case 8:
      return text(Time);
    case 12:
    case 13:
      return text(Text);
    case 14:
      snmp_set_var_typed_value(binding, ASN_OBJECT_ID, Resource, sizeof Resource);
      return;
    case 15:
      return text("");
    default:
      return number(ASN_INTEGER, column);
  }
}

void attach(const char* socket) {
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, socket);
  init_agent("bench_bare");
}

void ready() {
  if (main_session == nullptr) throw std::runtime_error("no connection to the master agent");
  std::puts("ready");
  std::fflush(stdout);
}

double processorMicros() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto micros = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
  };
  return micros(usage.ru_utime) + micros(usage.ru_stime);
}

unsigned unacknowledged() { return main_session->trap_stats->sent_count - main_session->trap_stats->ack_count; }

void sendNotification(unsigned number) {
  netsnmp_variable_list* bindings = nullptr;
  snmp_varlist_add_variable(&bindings, TrapOid, std::size(TrapOid), ASN_OBJECT_ID, Notification, sizeof Notification);
  std::array<oid, std::size(Entry)> name{};
  std::copy(std::begin(Entry), std::end(Entry), name.begin());
  name.back() = number;
  for (unsigned column = FirstColumn; column < LastColumn; ++column) {
    name[ColumnAt] = column;
    setColumn(snmp_varlist_add_variable(&bindings, name.data(), name.size(), ASN_NULL, nullptr, 0), column, number);
  }
  send_v2trap(bindings);
  snmp_free_varbind(bindings);
}

void notify(unsigned count) {
  init_snmp("bench_bare");
  ready();
  sendNotification(0);  // the library counts from the first one on
  while (unacknowledged() != 0) agent_check_and_process(1);
  const double processor = processorMicros();
  const Clock::time_point begin = Clock::now();
  for (unsigned sent = 0; sent < count || unacknowledged() != 0;) {
    while (sent < count && unacknowledged() < Window) sendNotification(++sent);
    agent_check_and_process(1);
  }
  const std::chrono::duration<double> taken = Clock::now() - begin;
  std::printf("%.6f %.3f\n", taken.count(), (processorMicros() - processor) / count);
}

struct Row {
  netsnmp_index index;
  oid number;
};

int onTable(netsnmp_mib_handler*, netsnmp_handler_registration*, netsnmp_agent_request_info*,
            netsnmp_request_info* requests) {
  for (auto* request = requests; request != nullptr; request = request->next) {
    if (request->processed != 0) continue;
    const auto* const row = static_cast<const Row*>(netsnmp_container_table_extract_context(request));
    const netsnmp_table_request_info* const place = netsnmp_extract_table_info(request);
    if (row != nullptr && place != nullptr)
      setColumn(request->requestvb, place->colnum, static_cast<unsigned>(row->number));
  }
  return SNMP_ERR_NOERROR;
}

void serveTable(unsigned rows) {
  netsnmp_table_registration_info info{};
  netsnmp_table_helper_add_indexes(&info, ASN_UNSIGNED, 0);
  info.min_column = FirstColumn;
  info.max_column = LastColumn;
  netsnmp_container* const container = netsnmp_container_find("bench:table_container");
  netsnmp_container_table_register(
      netsnmp_create_handler_registration("bench", onTable, Table, std::size(Table), HANDLER_CAN_RONLY), &info,
      container, TABLE_CONTAINER_KEY_NETSNMP_INDEX);
  std::vector<Row> all(rows);
  for (unsigned i = 0; i < rows; ++i) {
    all[i].number = i + 1;
    all[i].index = {1, &all[i].number};
    CONTAINER_INSERT(container, &all[i]);
  }
  init_snmp("bench_bare");
  ready();
  for (;;) agent_check_and_process(1);
}

void receive(unsigned count, const std::vector<int>& ports) {
  std::vector<pollfd> sockets;
  for (const int port : ports) {
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    constexpr int Buffer = 256 << 20;
    if (setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &Buffer, sizeof Buffer) != 0)
      setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &Buffer, sizeof Buffer);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    if (bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
      throw std::runtime_error("cannot receive at port " + std::to_string(port));
    sockets.push_back({descriptor, POLLIN, 0});
  }
  std::puts("ready");
  std::fflush(stdout);
  Clock::time_point begin;
  std::size_t left = std::size_t{count} * ports.size();
  const std::size_t all = left;
  char octet;
  while (left != 0) {
    poll(sockets.data(), sockets.size(), -1);
    for (const pollfd& readable : sockets)
      while (left != 0 && recv(readable.fd, &octet, 1, MSG_TRUNC) >= 0)
        if (left-- == all) begin = Clock::now();
  }
  const std::chrono::duration<double> taken = Clock::now() - begin;
  std::printf("%.6f 0\n", taken.count());
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() < 3) return 2;
  const auto number = [&words](std::size_t place) { return std::stoi(words[place]); };
  try {
    if (words[0] == "receive") {
      std::vector<int> ports;
      for (std::size_t i = 2; i < words.size(); ++i) ports.push_back(number(i));
      receive(static_cast<unsigned>(number(1)), ports);
      return 0;
    }
    attach(words[1].c_str());
    if (words[0] == "notify")
      notify(static_cast<unsigned>(number(2)));
    else
      serveTable(static_cast<unsigned>(number(2)));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_bare: %s\n", error.what());
    return 1;
  }
  return 0;
}
