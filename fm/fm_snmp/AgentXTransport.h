#ifndef VELA_FM_SNMP_AGENTX_TRANSPORT_H
#define VELA_FM_SNMP_AGENTX_TRANSPORT_H

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace VelaFmSnmp {

/**
 * The Unix socket between the agent library and the master agent (RFC 2741, 8.2), as a transport of the library. The
 * library waits on it for as long as its time-outs say; interrupt ends such a wait from another thread. There is one
 * connection in a process, since the library keeps it there.
 */
namespace AgentXTransport {

/** Connects to a socket at a path; the library's next use of getAddress takes that connection over. False when nobody
    accepts it at once, or after interrupt. The adaptor thread. */
bool connect(const std::string& path);
/** What the library is to be given as the master agent's address. The adaptor thread. */
const char* getAddress();

/** What recv and send do, but for the waits that interrupt ends. A send may take a part only. The adaptor thread. */
ssize_t receive(int descriptor, void* buffer, std::size_t size);
ssize_t send(int descriptor, const void* message, std::size_t size);

/** Ends the connection, so that nothing waits on it any more, and refuses others until resume. The library's requests
    fail from then on. Any thread. */
void interrupt();
bool isInterrupted();
void resume();

}  // namespace AgentXTransport
}  // namespace VelaFmSnmp
#endif
