/**
 * The node's plugin for snmpd (a dlmod): what the stock agent lacks. snmpd has one thread, and everything here runs on
 * it.
 */
#include "AccessShortcut.h"
#include "AgentLog.h"
#include "CommunityPrefix.h"
#include "DtlsTransport.h"
#include "EngineDiscovery.h"
#include "InternalCommunity.h"
#include "Reads.h"
#include "RunTimeRows.h"
#include "TlstmTables.h"
#include "TransportSecurity.h"

extern "C" {

/** snmpd calls this, named after the file, when it reads the dlmod line of its configuration. */
__attribute__((visibility("default"))) void init_vela_snmpd_plugin(void) {
  SnmpdPlugin::installAgentLog();
  SnmpdPlugin::installCommunityPrefix();
  SnmpdPlugin::installInternalCommunity();
  SnmpdPlugin::installRunTimeRows();
  SnmpdPlugin::installAccessShortcut();
  SnmpdPlugin::installReads();
  SnmpdPlugin::EngineDiscovery::install();
  SnmpdPlugin::installTransportSecurity();
  SnmpdPlugin::DtlsTransport::install();
  SnmpdPlugin::installTlstmTables();
}
}
