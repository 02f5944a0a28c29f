#ifndef VELA_FM_SNMP_SNMP_TYPES_H
#define VELA_FM_SNMP_SNMP_TYPES_H

#include <Poco/AutoPtr.h>
#include <Poco/RefCountedObject.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "TrapRows.h"
#include "UsmUser.h"

namespace VelaFmSnmp {

/** Protocol versions as targets and views carry them. */
enum SnmpProtocolVersion { SnmpProtocolV1 = 1, SnmpProtocolV2c = 2, SnmpProtocolV3 = 3 };

/** SnmpSecurityModel numbers (RFC 3411 for 1 to 3, RFC 5591 for 4). */
enum SnmpSecurityModelNumber { SecurityModelV1 = 1, SecurityModelV2c = 2, SecurityModelUsm = 3, SecurityModelTls = 4 };

/** Values of the attribute transportMethod. */
enum SnmpTransportMethod { TransportTrap = 1, TransportInform = 2 };
/** Values of the attribute snmpSecurityLevel (and SnmpSecurityLevel of RFC 3411). */
enum SnmpSecurityLevelNumber { LevelNoAuthNoPriv = 1, LevelAuthNoPriv = 2, LevelAuthPriv = 3 };
/** Values of the attribute authProtocol. */
enum SnmpAuthProtocol { AuthNone = 0, AuthMd5 = 1, AuthSha = 2 };
/** Values of the attribute privProtocol. */
enum SnmpPrivProtocol { PrivNone = 0, PrivDes = 1, PrivAes = 2 };

/** Whom views serve: a community or a user, and the version. */
using ViewOwner = std::pair<std::string, SnmpProtocolVersion>;

using SnmpAddress = std::pair<std::string, std::uint32_t>; /**< host text and port */
using SnmpAddressList = std::vector<SnmpAddress>;

/** The agent's DTLS settings. */
struct SnmpTlsOptions {
  std::string nodeCredential;               /**< fingerprint of the node's own certificate */
  SnmpAddressList agentAddressDtls;         /**< where the agent listens for DTLS */
  std::vector<std::string> trustCategories; /**< fingerprints of the certificates that are trusted */
  std::string targetDigest; /**< digest of the DTLS targets, which the comparison of targets leaves out */
  std::string cipherFilter; /**< OpenSSL cipher string */

  /** Whether there is all that DTLS needs: node credential, address and trust. */
  bool isEnabled() const { return !nodeCredential.empty() && !agentAddressDtls.empty() && !trustCategories.empty(); }
  void clear();
  bool operator==(const SnmpTlsOptions&) const = default;
};

/**
 * Base of the configuration objects. They are reference counted and held by Poco::AutoPtr only. Once they stand in an
 * SnmpConfig they are not changed any more, so that configurations may share them; only the configurator fills in what
 * it established, on copies that are its own. A copy has a count of its own.
 */
class SnmpBase : public Poco::RefCountedObject {
 public:
  std::string name; /**< key of the object in the maps of SnmpConfig */

 protected:
  SnmpBase() = default;
  SnmpBase(const SnmpBase& other) : Poco::RefCountedObject(), name(other.name) {}
  SnmpBase& operator=(const SnmpBase& other) {
    name = other.name;
    return *this;
  }
  ~SnmpBase() override = default;
};

/** A receiver of notifications: what all protocol versions have in common. */
class SnmpBaseTarget : public SnmpBase {
 public:
  /** Compares what is common (name, version and configured fields; never an operational state). */
  virtual bool operator==(const SnmpBaseTarget& other) const;
  /** Copies what is common. */
  virtual SnmpBaseTarget& operator=(const SnmpBaseTarget& other) = default;
  /** SNMP version, 1, 2 or 3 (SnmpProtocolVersion). DTLS targets say 3: ask getSecurityModel() for them. */
  virtual unsigned version() const = 0;
  /** Hundredths of a second; ten times what is configured while the inform time-out workaround is on. */
  virtual std::uint32_t getInformTimeout() const { return 0; }
  virtual std::uint32_t getInformRetryCount() const { return 0; }
  /** Security name of the target's notifications and requests in the master agent's tables. */
  virtual std::string getSecurityName() const = 0;
  /** SnmpSecurityModelNumber; 4 is the only sign of a DTLS target. */
  virtual int getSecurityModel() const = 0;

  /** A copy of the same kind that no configuration has yet. */
  virtual Poco::AutoPtr<SnmpBaseTarget> clone() const = 0;
  /** Whether another target is of the same kind and configured alike. */
  virtual bool equals(const SnmpBaseTarget& other) const;
  /** Throws ConfigurationFault when the values make no target. */
  virtual void check() const = 0;
  /** Whose views apply to what the target reads and writes. */
  virtual ViewOwner viewOwner() const = 0;
  /** SnmpSecurityLevelNumber of its notifications and requests. */
  virtual int securityLevel() const { return LevelNoAuthNoPriv; }
  /** What its rows in the master agent hold. @param nodeFingerprint  the node's certificate, for DTLS targets */
  virtual TrapRows trapRows(const std::string& nodeFingerprint) const = 0;
  /** The USM user that it needs in the master agent; none: it needs none. Throws as check. */
  virtual std::optional<UsmUser> usmUser() const;
  /** What to tell when the access of its community or user could not be configured. */
  virtual std::string accessFailure() const = 0;
  /** Community of a v1 or v2c target; null: it has none. */
  virtual const std::string* getCommunity() const { return nullptr; }
  /** Where requests with the community may come from: "address" or "address/prefix". */
  virtual std::string getSource() const { return address; }
  /** The `trapsess` line for informs that a session of the agent's own sends, with its pass phrases: never to be
      logged. Empty: its notifications are sent through the tables, or the line cannot be written (logged). */
  virtual std::string trapsess(const SnmpTlsOptions& tlsOptions) const;
  /** All that is configured, as one text, of a target that configurations compare by its digest; else empty. */
  virtual std::string digestText() const { return {}; }

  /** Installs the source of the inform time-out workaround's switch; null: off. Set before configurations are used. */
  static void setInformTimeoutWorkaround(bool (*isEnabled)());

  bool administrativeState = true;  /**< true: UNLOCKED */
  bool operationalState = false;    /**< as the model has it */
  bool operational = false;         /**< as established by configuring the master agent */
  bool hasOperationalState = false; /**< whether the model has a value */
  std::string address;              /**< host name or IP address of the receiver */
  std::uint32_t port = 0;
  bool isMibWritable = false;
  bool isComplete =
      true; /**< all mandatory attributes could be read; a target without it stays DISABLED. Not compared */
  bool hasNameAttribute = false;         /**< the name comes from the attribute, not from the distinguished name */
  std::string moName;                    /**< distinguished name in the model */
  std::uint32_t missingAttributes = 0;   /**< number of mandatory attributes that could not be read */
  std::uint32_t defaultedAttributes = 0; /**< number of optional attributes that stand at their default by a fault */
  bool mayBeReadLater = false; /**< it is incomplete by a fault outside the model: a pass phrase cannot be decrypted
                                  now. Not compared */

 protected:
  SnmpBaseTarget() = default;
  SnmpBaseTarget(const SnmpBaseTarget&) = default;
  ~SnmpBaseTarget() override = default;

  /** An inform time-out with the workaround applied. */
  static std::uint32_t effectiveInformTimeout(std::uint32_t informTimeout);
};

class SnmpTargetV1 : public SnmpBaseTarget {
 public:
  SnmpTargetV1() = default;
  SnmpTargetV1(const SnmpTargetV1&) = default;

  using SnmpBaseTarget::operator==;
  using SnmpBaseTarget::operator=;
  unsigned version() const override { return SnmpProtocolV1; }
  std::string getSecurityName() const override;
  int getSecurityModel() const override { return SecurityModelV1; }
  virtual bool operator==(const SnmpTargetV1& other) const;
  virtual SnmpTargetV1& operator=(const SnmpTargetV1& other) = default;
  Poco::AutoPtr<SnmpBaseTarget> clone() const override;
  bool equals(const SnmpBaseTarget& other) const override;
  void check() const override;
  ViewOwner viewOwner() const override { return {community, SnmpProtocolV1}; }
  TrapRows trapRows(const std::string& nodeFingerprint) const override;
  std::string accessFailure() const override;
  const std::string* getCommunity() const override { return &community; }
  std::string getSource() const override;

  std::string community;
  std::int32_t networkPrefixLength = 0; /**< -1: no prefix */

 protected:
  ~SnmpTargetV1() override = default;
};

class SnmpTargetV2C : public SnmpBaseTarget {
 public:
  SnmpTargetV2C() = default;
  SnmpTargetV2C(const SnmpTargetV2C&) = default;

  using SnmpBaseTarget::operator==;
  using SnmpBaseTarget::operator=;
  unsigned version() const override { return SnmpProtocolV2c; }
  std::uint32_t getInformTimeout() const override { return effectiveInformTimeout(informTimeout); }
  std::uint32_t getInformRetryCount() const override { return informRetryCount; }
  std::string getSecurityName() const override;
  int getSecurityModel() const override { return SecurityModelV2c; }
  virtual bool operator==(const SnmpTargetV2C& other) const;
  virtual SnmpTargetV2C& operator=(const SnmpTargetV2C& other) = default;
  Poco::AutoPtr<SnmpBaseTarget> clone() const override;
  bool equals(const SnmpBaseTarget& other) const override;
  void check() const override;
  ViewOwner viewOwner() const override { return {community, SnmpProtocolV2c}; }
  TrapRows trapRows(const std::string& nodeFingerprint) const override;
  std::string accessFailure() const override;
  const std::string* getCommunity() const override { return &community; }
  std::string getSource() const override;

  std::string community;
  std::uint32_t informRetryCount = 0;
  std::uint32_t informTimeout = 0; /**< hundredths of a second, as configured */
  std::int32_t transportMethod = TransportTrap;
  std::int32_t networkPrefixLength = 0; /**< -1: no prefix */

 protected:
  ~SnmpTargetV2C() override = default;
};

class SnmpTargetV3Usm : public SnmpBaseTarget {
 public:
  SnmpTargetV3Usm() = default;
  SnmpTargetV3Usm(const SnmpTargetV3Usm&) = default;

  using SnmpBaseTarget::operator==;
  using SnmpBaseTarget::operator=;
  unsigned version() const override { return SnmpProtocolV3; }
  std::uint32_t getInformTimeout() const override { return effectiveInformTimeout(informTimeout); }
  std::uint32_t getInformRetryCount() const override { return informRetryCount; }
  std::string getSecurityName() const override { return user; }
  int getSecurityModel() const override { return SecurityModelUsm; }
  virtual bool operator==(const SnmpTargetV3Usm& other) const;
  virtual SnmpTargetV3Usm& operator=(const SnmpTargetV3Usm& other) = default;
  Poco::AutoPtr<SnmpBaseTarget> clone() const override;
  bool equals(const SnmpBaseTarget& other) const override;
  void check() const override;
  ViewOwner viewOwner() const override { return {getSecurityName(), SnmpProtocolV3}; }
  int securityLevel() const override { return snmpSecurityLevel; }
  TrapRows trapRows(const std::string& nodeFingerprint) const override;
  std::optional<UsmUser> usmUser() const override;
  std::string accessFailure() const override;
  std::string trapsess(const SnmpTlsOptions& tlsOptions) const override;

  std::string user;
  std::string authKey; /**< pass phrase in clear text: never to be logged */
  std::string privKey; /**< pass phrase in clear text: never to be logged */
  std::int32_t snmpSecurityLevel = LevelAuthPriv;
  std::int32_t authProtocol = AuthMd5;
  std::int32_t privProtocol = PrivDes;
  std::uint32_t informRetryCount = 0;
  std::uint32_t informTimeout = 0; /**< hundredths of a second, as configured */
  std::int32_t transportMethod = TransportTrap;

 protected:
  ~SnmpTargetV3Usm() override = default;
};

/** A receiver reached over DTLS (RFC 6353); told from SnmpTargetV3Usm by its security model. */
class SnmpTargetV3Tls : public SnmpTargetV3Usm {
 public:
  using SnmpTargetV3Usm::operator=;
  SnmpTargetV3Tls() = default;
  SnmpTargetV3Tls(const SnmpTargetV3Tls&) = default;

  int getSecurityModel() const override { return SecurityModelTls; }
  Poco::AutoPtr<SnmpBaseTarget> clone() const override;
  void check() const override;
  int securityLevel() const override { return LevelAuthPriv; }
  TrapRows trapRows(const std::string& nodeFingerprint) const override;
  std::optional<UsmUser> usmUser() const override;
  std::string trapsess(const SnmpTlsOptions& tlsOptions) const override;
  std::string digestText() const override;

 protected:
  ~SnmpTargetV3Tls() override = default;
};

/** What a community or user may see: subtrees for reading and for writing. */
class SnmpBaseView : public SnmpBase {
 public:
  explicit SnmpBaseView(unsigned version) : _version(version) {}
  SnmpBaseView(const SnmpBaseView&) = default;
  SnmpBaseView& operator=(const SnmpBaseView&) = default;

  virtual unsigned version() const { return _version; }
  bool operator==(const SnmpBaseView& other) const;

 protected:
  ~SnmpBaseView() override = default;

 private:
  unsigned _version;

 public:
  std::vector<std::string> community; /**< communities; of a version 3 view: users */
  /** Dotted OIDs as configured: optionally "!" in front to exclude, "/" and a hexadecimal mask behind. */
  std::vector<std::string> readOids;
  std::vector<std::string> writeOids;
};

/** The SNMP service as the model describes it. Used on the adaptor thread. */
class SnmpConfig {
 public:
  using Address = SnmpAddress;
  using AddressList = SnmpAddressList;
  using TargetMap = std::map<std::string, Poco::AutoPtr<SnmpBaseTarget>>;
  using ViewMap = std::map<std::string, Poco::AutoPtr<SnmpBaseView>>;

  using tlsOptions_t = SnmpTlsOptions;

  /** Empties everything but the SNMP object's name and the flags. */
  void clear();
  /** Whether the master agent would be configured alike. DTLS targets are looked for by name only (and by digest). */
  bool operator==(const SnmpConfig& other) const;
  bool isEnabled() const { return administrativeState && !agentAddress.empty(); }
  const TargetMap& getTargets() const { return targets; }
  const ViewMap& getViews() const { return views; }
  /** Number of targets of which another reading of the same model may yield more. */
  std::size_t countReadableLater() const;
  /** Whether every unlocked target is operational; DTLS targets count only while DTLS is enabled. */
  bool allTargetsOperational() const;
  /** Communities of all v1 and v2c targets, one for each target, in the targets' order. */
  std::vector<std::string> getV1AndV2communities() const;
  /** Communities of the unlocked v1 and v2c targets with the sources ("address" or "address/prefix") they allow. */
  std::multimap<std::string, std::string> getV1V2communitiesAndAddrWithPrefixLength() const;
  /** `trapsess` lines of the authenticated v3 informs. The lines hold pass phrases: never to be logged. */
  std::vector<std::string> getInformTrapsessConfig() const;
  /** `trapsess` lines of the informs over DTLS; none while DTLS is not enabled. */
  std::vector<std::string> getInformDtlsTrapsessConfig() const;

  std::string snmpMoName; /**< distinguished name of the SNMP object */
  AddressList agentAddress;
  std::string snmpId;
  bool dscpCmEnabled = true; /**< the category OamCM is marked */
  bool dscpFmEnabled = true; /**< the category OamFM is marked */
  bool isAgentAddressFromAccessPoint = false;
  bool administrativeState = true;
  bool enableSourceCheckForV1V2C = false;
  std::string engineId; /**< hexadecimal; empty: the agent's own */
  tlsOptions_t tlsOptions;
  TargetMap targets;
  ViewMap views;
  std::vector<std::string> leftOut; /**< distinguished names of the targets whose name another one has */
};

}  // namespace VelaFmSnmp
#endif
