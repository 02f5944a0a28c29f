#ifndef SNMPD_PLUGIN_NET_SNMP_H
#define SNMPD_PLUGIN_NET_SNMP_H

// net-snmp's headers want to be included in this order, and OpenSSL's before those about certificates.
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/library/cert_util.h>

#include <net-snmp/library/snmpDTLSUDPDomain.h>

#include <net-snmp/library/snmpIPBaseDomain.h>

#include <net-snmp/library/snmpIPv4BaseDomain.h>

#include <net-snmp/library/snmpIPv6BaseDomain.h>

#include <net-snmp/library/snmpTLSBaseDomain.h>

#include <net-snmp/library/snmpUDPIPv6Domain.h>

#endif
