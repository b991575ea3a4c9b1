#include "Crc32.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Crc32Kernels.h"

namespace kro
{
namespace
{
using Kernel = std::uint32_t (*)(std::uint32_t, const unsigned char*, std::size_t);

/// The division bit by bit: knows nothing of tables.
std::uint32_t divided(std::uint32_t running, const unsigned char* data, std::size_t length)
{
    for (std::size_t i = 0; i < length; ++i) {
        running ^= data[i];
        for (int bit = 0; bit < 8; ++bit) running = (running >> 1) ^ ((running & 1) != 0 ? 0xEDB88320 : 0);
    }
    return running;
}

std::vector<unsigned char> randomBytes(std::size_t count)
{
    std::vector<unsigned char> bytes(count);
    std::mt19937_64 random(count);
    for (std::size_t i = 0; i < count; i += 8) {
        const auto word = random();
        std::memcpy(bytes.data() + i, &word, std::min<std::size_t>(8, count - i));
    }
    return bytes;
}

int sizeOf(const std::vector<unsigned char>& data)
{
    return static_cast<int>(data.size());
}

TEST(Crc32Test, GivesTheCheckValueAndLeavesTheSeedOfAnEmptyBuffer)
{
    std::string digits = "123456789";
    EXPECT_EQ(GetCRC32(0, reinterpret_cast<unsigned char*>(digits.data()), 9), 0xCBF43926u);
    for (const unsigned int seed : {0u, 1u, 0xCBF43926u, 0xFFFFFFFFu})
        EXPECT_EQ(GetCRC32(seed, nullptr, 0), seed);
}

TEST(Crc32Test, EqualsTheDivisionForEveryLengthSeedAndAlignmentInEveryKernel)
{
    constexpr std::size_t kMost = 700;
    const auto data = randomBytes(kMost);
    const std::vector<Kernel> kernels{detail::crcBytewise, detail::crcSlicingBy8, detail::crcFastest};
    for (std::size_t length = 0; length <= kMost; ++length) {
        for (const std::size_t offset : {0, 1, 7, 15}) {
            // Ends with its last byte, so that the address sanitizer sees a read beyond it.
            const auto room = std::make_unique<unsigned char[]>(offset + length);
            unsigned char* const begin = room.get() + offset;
            std::copy_n(data.begin(), length, begin);
            for (const std::uint32_t seed : {0u, 0xFFFFFFFFu, static_cast<unsigned>(length) * 2654435761u}) {
                const std::uint32_t expected = divided(seed, begin, length);
                for (std::size_t k = 0; k < kernels.size(); ++k)
                    ASSERT_EQ(kernels[k](seed, begin, length), expected)
                        << "kernel " << k << ", length " << length << ", offset " << offset;
            }
        }
    }
}

TEST(Crc32Test, TakesABufferInPiecesOfAnyLength)
{
    auto data = randomBytes(4096);
    const unsigned int whole = GetCRC32(0, data.data(), sizeOf(data));
    for (int first = 0; first <= sizeOf(data); first += 37) {
        const unsigned int crc = GetCRC32(0, data.data(), first);
        EXPECT_EQ(GetCRC32(crc, data.data() + first, sizeOf(data) - first), whole) << "cut at " << first;
    }
}

TEST(Crc32Test, EqualsTheDefinitionOver100MiB)
{
    auto data = randomBytes(100 << 20);
    EXPECT_EQ(GetCRC32(0, data.data(), sizeOf(data)), ~detail::crcBytewise(~0u, data.data(), data.size()));
}

TEST(Crc32Test, ReadsANegativeLengthAsACountOf2GiBOrMore)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer keeps a shadow four times as large as what is read";
#endif
    // The same few pages over and over fill the address space that the count needs.
    constexpr std::size_t kPiece = 1 << 20;
    constexpr std::size_t kBytes = std::size_t{1} << 31;
    const auto piece = randomBytes(kPiece);
    const int file = memfd_create("piece", MFD_CLOEXEC);
    ASSERT_EQ(write(file, piece.data(), kPiece), static_cast<ssize_t>(kPiece));
    void* const room = mmap(nullptr, kBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(room, MAP_FAILED);
    auto* const data = static_cast<unsigned char*>(room);
    for (std::size_t at = 0; at < kBytes; at += kPiece)
        ASSERT_NE(mmap(data + at, kPiece, PROT_READ, MAP_SHARED | MAP_FIXED | MAP_POPULATE, file, 0),
                  MAP_FAILED);
    const unsigned int half = GetCRC32(7, data, 1 << 30);
    EXPECT_EQ(GetCRC32(7, data, INT_MIN), GetCRC32(half, data + (1 << 30), 1 << 30));
    close(file);
    munmap(room, kBytes);
}

}  // namespace
}  // namespace kro
