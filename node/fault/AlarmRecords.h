/** The octets in which the fault-management service's state is kept on disk. */
#ifndef VELA_NODE_ALARM_RECORDS_H
#define VELA_NODE_ALARM_RECORDS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fault/FmAlarm.h"

namespace VelaNode {

/**
 * A record tells one change and the numbers after it:
 *
 *   octets  4       4                        4                                  length
 *           marker  length of what follows   CRC-32 of length and what follows  kind, numbers, alarm or index
 *           the checksum
 *
 * Integers are little-endian; a text is its length in 4 octets and its octets. Since each record tells an alarm whole,
 * one that is damaged costs only the change that it told.
 */
std::string encodeActive(const FmAlarm& alarm, const FmNumbers& numbers); /**< raised, or changed */
std::string encodeRemoved(std::uint32_t index, const FmNumbers& numbers);
std::string encodeNumbers(const FmNumbers& numbers);

/** What the octets of a file tell. */
struct DecodedRecords {
  FmState state;
  std::size_t recordCount = 0;
  std::size_t validEnd = 0;      /**< where the last record ends; what follows was not written to its end */
  std::size_t damagedOctets = 0; /**< between records */
};

/** Reads records, in any state of damage. Of two alarms with the same key, which only damage can leave, the one raised
    later stays. */
DecodedRecords decodeRecords(std::string_view octets);

}  // namespace VelaNode
#endif
