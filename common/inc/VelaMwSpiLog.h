/** Log and trace services of the host. */
#ifndef VELA_MW_SPI_LOG_H
#define VELA_MW_SPI_LOG_H

#include <stdint.h>

#include "VelaMgmtSpi.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VELA_LOG_INTERFACE "VelaMwSpiLog"
#define VELA_LOG_VERSION "1"
#define DAX_TRACE_INTERFACE "DaxMwSpiTrace"

/** Interface "VelaMwSpiLog", version "1". Callable from any thread. */
typedef struct VelaMwSpiLog_1T {
  /** Writes one line. Severity: 3 error, 4 warning, 5 notice, 6 information, 7 debug. */
  void (*write)(int32_t severity, const char* component, const char* function, const char* text);
  /** The host's present log level (0..9): lines of a severity above it need not be formatted; above 7 traces flow. */
  int32_t (*getLevel)(void);
} VelaMwSpiLog_1T;

/** Interface "DaxMwSpiTrace", any version. Callable from any thread. */
typedef struct DaxMwSpiTraceT {
  /** Writes one trace line to a channel ("FM"). */
  void (*write)(const char* channel, const char* function, const char* text);
} DaxMwSpiTraceT;

#ifdef __cplusplus
}
#endif
#endif
