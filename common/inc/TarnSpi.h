/**
 * What the component, the management tool `tarn` and the master agent's plugin agree on: each runs as a process of its
 * own, and whatever passes from one to the other by name stands here and nowhere else.
 */
#ifndef VELA_TARN_SPI_H
#define VELA_TARN_SPI_H

#include "TarnSpiVersion.h"

namespace Vela::TarnSpi {

/** The user that the node itself works as in the master agent. */
inline constexpr const char* NodeUser = "vela_config_user";

/** Protocols of a template user, by the numbers of the model's attributes authProtocol and privProtocol. */
enum AuthProtocol { Md5 = 1, Sha = 2 };
enum PrivProtocol { Des = 1, Aes = 2 };

struct TemplateUser {
  const char* name;
  AuthProtocol auth;
  PrivProtocol priv;
};
/** The users that the tool gives the agent, from which the component clones others, in its search order. All have the
 *  node's pass phrase for authentication and for privacy. */
inline constexpr TemplateUser TemplateUsers[] = {{NodeUser, Md5, Des},
                                                 {"vela_templ_SHA_DES", Sha, Des},
                                                 {"vela_templ_MD5_AES", Md5, Aes},
                                                 {"vela_templ_SHA_AES", Sha, Aes}};

/** Stands before a community in its security name; the plugin takes it off again where a community goes out. */
inline constexpr const char* SecurityNamePrefix = "Vela_";

/**
 * Security name of the component's own notification target. What the agent sends it carries, as its community, the
 * random one of the run, which the component sets as snmpCommunityName (RFC 3584) of the row of this name before it
 * writes the target's rows. The plugin serves this one object, to the node's user alone, and never yields its value. In
 * an agent without the plugin the community is the security name.
 */
inline constexpr const char* InternalSecurityName = "VelaDummy";
inline constexpr const char* InternalCommunityObject = ".1.3.6.1.6.3.18.1.1.1.2.86.101.108.97.68.117.109.109.121";

/** First revision of the tool's command interface, and those from which it knows a feature. */
inline constexpr TarnSpiVersion FirstRevision{1, 0, 0};
inline constexpr TarnSpiVersion DtlsRevision{1, 2, 0};
inline constexpr TarnSpiVersion TrapSessAndCipherRevision{1, 6, 0};
inline constexpr TarnSpiVersion Ipv6PortOrderRevision{1, 9, 0};
inline constexpr TarnSpiVersion EngineIdRevision{1, 10, 0};

/** Milliseconds that the component waits for the tool to start the agent. The tool gives up a little earlier, so that
 *  its reason is heard. */
inline constexpr int StartTimeoutMs = 120000;

/** First word of a line that the tool's start prints to standard output for each inform receiver that it left out, as
 *  its name had no address; the second word is the receiver's name. */
inline constexpr const char* ReceiverLeftOut = "receiver-left-out";

}  // namespace Vela::TarnSpi
#endif
