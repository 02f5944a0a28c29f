/** The host's managed-object service: typed attributes of objects by distinguished name, in transactions. */
#ifndef VELA_OAM_SPI_MANAGED_OBJECT_H
#define VELA_OAM_SPI_MANAGED_OBJECT_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "VelaMgmtSpi.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VELA_MO_COMPONENT "VelaOamSpiCmRouterService"
#define VELA_MO_INTERFACE "VelaOamSpiManagedObject"
#define VELA_MO_VERSION "3"

typedef enum VelaOamSpiMoTypeT {
  VELA_MO_BOOL = 1,
  VELA_MO_INT16 = 2,
  VELA_MO_UINT16 = 3,
  VELA_MO_INT32 = 4,
  VELA_MO_UINT32 = 5,
  VELA_MO_INT64 = 6,
  VELA_MO_UINT64 = 7,
  VELA_MO_ENUM = 8, /**< number in `i64` */
  VELA_MO_STRING = 9,
  VELA_MO_REFERENCE = 10, /**< distinguished name in `text` */
  VELA_MO_STRUCT = 11
} VelaOamSpiMoTypeT;

struct VelaOamSpiMoMember_3T;

/** One value. Signed types, booleans and enumerations use `i64`, unsigned ones `u64`. */
typedef struct VelaOamSpiMoValue_3T {
  VelaOamSpiMoTypeT type;
  int64_t i64;
  uint64_t u64;
  const char* text;                            /**< NUL-terminated; VELA_MO_STRING and VELA_MO_REFERENCE */
  const struct VelaOamSpiMoMember_3T* members; /**< VELA_MO_STRUCT */
  size_t memberCount;
} VelaOamSpiMoValue_3T;

typedef struct VelaOamSpiMoMember_3T {
  const char* name;
  bool isSet;
  VelaOamSpiMoValue_3T value; /**< undefined unless set */
} VelaOamSpiMoMember_3T;

/** An attribute: no value (valueCount 0, not set), one value, or a sequence of any length. */
typedef struct VelaOamSpiMoAttribute_3T {
  const char* name;
  bool isSequence;
  bool isSet; /**< false for an optional attribute without value; a sequence is always set */
  const VelaOamSpiMoValue_3T* values;
  size_t valueCount;
} VelaOamSpiMoAttribute_3T;

/** Identifies a transaction; 0 is none. */
typedef uint64_t VelaOamSpiMoTransactionT;

/** One object as it was when opened. Immutable; what is read from it stays valid until it is closed. */
typedef struct VelaOamSpiMoObjectT VelaOamSpiMoObjectT;

/** Called per object of a traversal; the object is valid during the call only. Returning false ends the walk. */
typedef bool (*VelaOamSpiMoVisitorT)(void* context, const char* dn, const VelaOamSpiMoObjectT* object);

enum {
  VELA_MO_LOCK_ON_WRITE = 1, /**< the first write takes the writer's lock */
  VELA_MO_LOCK_AT_ONCE = 2   /**< begin takes the writer's lock */
};

/**
 * Interface "VelaOamSpiManagedObject", version "3". Callable from any thread; one transaction belongs to one thread at
 * a time. A transaction reads what is committed, overlaid by its own writes. Nothing is changed before commit, and
 * commit changes all or nothing. Every failing call leaves the transaction as it was; getErrorText tells why.
 */
typedef struct VelaOamSpiManagedObject_3T {
  /** Time-out in seconds for getting the writer's lock (VELA_TIMEOUT). */
  VelaReturnT (*beginTransaction)(int32_t lockPolicy, uint32_t timeoutSeconds, VelaOamSpiMoTransactionT* transaction);
  VelaReturnT (*commit)(VelaOamSpiMoTransactionT transaction); /**< ends the transaction, also on failure */
  VelaReturnT (*abort)(VelaOamSpiMoTransactionT transaction);  /**< ends the transaction */
  /** Text of the calling thread's last failure. Valid until the thread's next call. */
  const char* (*getErrorText)(void);

  /** First instance of a class path such as "ManagedElement,SystemFunctions,Fm" (each step: the first by name). The
      text is valid until the thread's next call. VELA_NOT_FOUND if there is none. */
  VelaReturnT (*getFirstInstance)(VelaOamSpiMoTransactionT transaction, const char* classPath, const char** dn);
  /** Walks the direct children of an object, ordered by class and name (FmAlarm by ascending alarm id); class null:
      all. VELA_NOT_FOUND if the parent does not exist. The walk sees the moment of the call. */
  VelaReturnT (*traverseChildren)(VelaOamSpiMoTransactionT transaction, const char* parentDn, const char* className,
                                  VelaOamSpiMoVisitorT visitor, void* context);
  VelaReturnT (*openObject)(VelaOamSpiMoTransactionT transaction, const char* dn, const VelaOamSpiMoObjectT** object);
  void (*closeObject)(const VelaOamSpiMoObjectT* object);
  /** Class name of an object; lives as long as the object. */
  const char* (*getClassName)(const VelaOamSpiMoObjectT* object);
  /** An attribute; lives as long as the object. VELA_NOT_FOUND if the class has no such attribute. */
  VelaReturnT (*getAttribute)(const VelaOamSpiMoObjectT* object, const char* name,
                              const VelaOamSpiMoAttribute_3T** attribute);
  /** Writes an attribute. Types are checked (VELA_INVALID), ranges of meaning are not. isSet false unsets it. */
  VelaReturnT (*setAttribute)(VelaOamSpiMoTransactionT transaction, const char* dn,
                              const VelaOamSpiMoAttribute_3T* attribute);
  VelaReturnT (*createObject)(VelaOamSpiMoTransactionT transaction, const char* dn);
  VelaReturnT (*deleteObject)(VelaOamSpiMoTransactionT transaction, const char* dn); /**< with its children */
} VelaOamSpiManagedObject_3T;

#ifdef __cplusplus
}
#endif
#endif
