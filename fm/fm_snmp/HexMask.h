#ifndef VELA_FM_SNMP_HEX_MASK_H
#define VELA_FM_SNMP_HEX_MASK_H

namespace VelaFmSnmp {

/**
 * Decodes octets of two hexadecimal digits each, optionally separated by "." or ":" (a view's mask, a fingerprint).
 * @param buffer  takes at most `size` octets
 * @param length  set to their number; 0 when the text is none
 * @return false, with a log line, for anything else than hexadecimal octets and for more than `size` of them
 */
bool convertHexMask(unsigned char* buffer, int* length, int size, const char* text);

}  // namespace VelaFmSnmp
#endif
