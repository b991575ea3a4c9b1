#include "Crc32.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <random>

#include "Crc32Kernels.h"

namespace kro
{
namespace
{
/// The division bit by bit: knows nothing of tables.
std::uint32_t divided(std::uint32_t running, const unsigned char* data, std::size_t length)
{
    for (std::size_t i = 0; i < length; ++i) {
        running ^= data[i];
        for (int bit = 0; bit < 8; ++bit) running = (running >> 1) ^ ((running & 1) != 0 ? 0xEDB88320 : 0);
    }
    return running;
}

TEST(Crc32Test, EqualsTheDivisionForEveryLengthSeedAndAlignmentInEveryKernel)
{
    unsigned char data[700];
    std::mt19937 random(7);
    for (unsigned char& byte : data) byte = static_cast<unsigned char>(random());
    for (std::size_t length = 0; length <= sizeof data; ++length) {
        for (const std::size_t offset : {0, 1, 7, 15}) {
            // Ends with its last byte, so that the address sanitizer sees a read beyond it.
            const auto room = std::make_unique<unsigned char[]>(offset + length);
            unsigned char* const begin = room.get() + offset;
            std::copy_n(data, length, begin);
            for (const std::uint32_t seed : {0u, 0xFFFFFFFFu, static_cast<unsigned>(length) * 2654435761u}) {
                const std::uint32_t expected = divided(seed, begin, length);
                for (const auto kernel : {detail::crcBytewise, detail::crcSlicingBy8, detail::crcFastest})
                    ASSERT_EQ(kernel(seed, begin, length), expected)
                        << "length " << length << " at " << offset;
                ASSERT_EQ(GetCRC32(~seed, begin, static_cast<int>(length)), ~expected);
            }
        }
    }
}

TEST(Crc32Test, ReadsANegativeLengthAsACountOf2GiBOrMore)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer keeps a shadow four times as large as what is read";
#endif
    constexpr std::size_t kBytes = std::size_t{1} << 31;  // of zeros, which take no memory
    void* const room = mmap(nullptr, kBytes, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(room, MAP_FAILED);
    auto* const data = static_cast<unsigned char*>(room);
    const unsigned int half = GetCRC32(7, data, 1 << 30);
    EXPECT_EQ(GetCRC32(7, data, INT_MIN), GetCRC32(half, data, 1 << 30));
    munmap(room, kBytes);
}

}  // namespace
}  // namespace kro
