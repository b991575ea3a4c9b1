#ifndef KRO_CRC32_H
#define KRO_CRC32_H

#include "KroApi.h"

namespace kro
{

/// CRC-32 of IEEE 802.3, the one of Ethernet, gzip and PNG: polynomial 0x04C11DB7 in its reflected form
/// 0xEDB88320, initial value and final XOR 0xFFFFFFFF. Its check value, over the characters 123456789, is
/// 0xCBF43926.
///
/// A long buffer can be done in pieces:
///
///     unsigned int crc = 0;
///     for (auto& piece : pieces) crc = kro::GetCRC32(crc, piece.data(), static_cast<int>(piece.size()));
///
/// Any thread, on any data; the processor's own instructions are used where it has them, with the same
/// result.
///
/// @param crc     0 to begin, afterwards the result for what came before.
/// @param data    is only read; may be null if `length` is 0, and need not be aligned.
/// @param length  bytes, read as an unsigned 32-bit count: a negative one is a count of 2 GiB or more.
/// @return the CRC of everything up to here; `crc` itself if `length` is 0.
KRO_API unsigned int GetCRC32(unsigned int crc, unsigned char* data, int length);

}  // namespace kro

#endif
