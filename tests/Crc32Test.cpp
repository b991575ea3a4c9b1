#include "Crc32.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <memory>
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
    std::mt19937 random(7);
    for (std::size_t length = 0; length <= 700; ++length) {
        // Ends with its last byte, so that the address sanitizer sees a read beyond it.
        const auto room = std::make_unique<unsigned char[]>(length / 3 % 16 + length);
        unsigned char* const begin = room.get() + length / 3 % 16;
        std::generate_n(begin, length, random);
        for (const std::uint32_t seed : {0u, 0xFFFFFFFFu, static_cast<unsigned>(random())}) {
            const std::uint32_t expected = divided(seed, begin, length);
            for (const auto kernel : {detail::crcBytewise, detail::crcSlicingBy8, detail::crcFastest})
                ASSERT_EQ(kernel(seed, begin, length), expected) << "length " << length;
            ASSERT_EQ(GetCRC32(~seed, begin, static_cast<int>(length)), ~expected);
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
    auto* const data = static_cast<unsigned char*>(room);
    EXPECT_EQ(GetCRC32(7, data, INT_MIN), GetCRC32(GetCRC32(7, data, 1 << 30), data, 1 << 30));
    munmap(room, kBytes);
}

}  // namespace
}  // namespace kro
