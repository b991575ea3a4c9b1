#ifndef KRO_CRC32_KERNELS_H
#define KRO_CRC32_KERNELS_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace kro
{

/// The standard table of CRC-32: what one byte does to the running value.
extern const std::array<std::uint32_t, 256> crc32_tab;

namespace detail
{
// The ways to get on with a CRC. `running` is the inverted CRC, before and after.

/// One byte at a time, through crc32_tab: the definition of the result.
std::uint32_t crcBytewise(std::uint32_t running, const unsigned char* data, std::size_t length);

/// Eight bytes at a time, through eight tables: for processors without instructions that help.
std::uint32_t crcSlicingBy8(std::uint32_t running, const unsigned char* data, std::size_t length);

/// With the instructions of this processor, and crcSlicingBy8() where they don't help.
std::uint32_t crcFastest(std::uint32_t running, const unsigned char* data, std::size_t length);
}  // namespace detail

}  // namespace kro

#endif
