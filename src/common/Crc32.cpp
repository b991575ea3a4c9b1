#include "Crc32.h"

#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__aarch64__)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

#include "Crc32Kernels.h"

namespace kro
{

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "words are read as they lie in memory");

namespace
{
constexpr std::uint32_t kPolynomial = 0xEDB88320;  // reflected: bit 31 is x^0

/// @return a * x mod P.
constexpr std::uint32_t timesX(std::uint32_t a)
{
    return (a >> 1) ^ ((a & 1) != 0 ? kPolynomial : 0);
}

constexpr std::array<std::uint32_t, 256> makeTable()
{
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit) value = timesX(value);
        table[byte] = value;
    }
    return table;
}
}  // namespace

constexpr std::array<std::uint32_t, 256> crc32_tab = makeTable();
static_assert(crc32_tab[0] == 0x00000000 && crc32_tab[1] == 0x77073096);

namespace
{
using SlicingTables = std::array<std::array<std::uint32_t, 256>, 8>;

/// Table k tells what a byte does that k more bytes follow.
constexpr SlicingTables makeSlicingTables()
{
    SlicingTables tables{};
    tables[0] = crc32_tab;
    for (std::size_t k = 1; k < tables.size(); ++k)
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const std::uint32_t before = tables[k - 1][byte];
            tables[k][byte] = crc32_tab[before & 0xFF] ^ (before >> 8);
        }
    return tables;
}
constexpr SlicingTables s_slicing = makeSlicingTables();

template <typename Word>
Word load(const unsigned char* data)
{
    Word word;
    std::memcpy(&word, data, sizeof word);
    return word;
}

#if defined(__x86_64__)
// Folding by carry-less multiplication, after Gopal, Ozturk, Guilford, Wolrich, Feghali, Dixon and
// Karakoyunlu, "Fast CRC Computation for Generic Polynomials Using PCLMULQDQ Instruction", Intel 2009. In the
// reflected form a 128-bit lane holds the earlier bytes in its lower half; a product of two reflected factors
// comes out one bit low, which the constants make up for.
#define KRO_CLMUL __attribute__((target("pclmul,sse4.1"))) inline

/// @return x^exponent mod P, one bit up.
constexpr std::int64_t powerOfX(int exponent)
{
    std::uint32_t power = 0x80000000;
    for (int i = 0; i < exponent; ++i) power = timesX(power);
    return static_cast<std::int64_t>(power) << 1;
}

/// @return x^64 / P without its remainder, reflected.
constexpr std::int64_t quotient()
{
    std::uint64_t rest = std::uint64_t{1} << 32;
    std::int64_t reflected = 0;
    for (int bit = 0; bit <= 32; ++bit) {  // long division, from the highest power down
        if ((rest & (std::uint64_t{1} << 32)) != 0) {
            rest ^= 0x104C11DB7;
            reflected |= std::int64_t{1} << bit;
        }
        rest <<= 1;
    }
    return reflected;
}
constexpr std::int64_t kQuotient = quotient();
constexpr std::int64_t kDivisor = (static_cast<std::int64_t>(kPolynomial) << 1) | 1;

KRO_CLMUL __m128i loadLane(const unsigned char* data)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(data));
}

/// Carries `lane` over kBits bits.
/// @return it folded onto `next`, which lies there.
template <int kBits>
KRO_CLMUL __m128i fold(__m128i lane, __m128i next)
{
    constexpr std::int64_t kLower = powerOfX(kBits + 32);
    constexpr std::int64_t kUpper = powerOfX(kBits - 32);
    const __m128i constants = _mm_set_epi64x(kUpper, kLower);
    const __m128i lower = _mm_clmulepi64_si128(lane, constants, 0x00);
    const __m128i upper = _mm_clmulepi64_si128(lane, constants, 0x11);
    return _mm_xor_si128(_mm_xor_si128(lower, upper), next);
}

/// Folds `lane` onto the last 1 to 15 bytes.
/// @param end  behind the last byte; at least 16 bytes lie before it.
KRO_CLMUL __m128i foldRest(__m128i lane, const unsigned char* end, std::size_t rest)
{
    // Read from byte 16 + n on, this moves a lane down by n bytes; from byte n on, up by 16 - n. 0x80 gives a
    // zero.
    alignas(16) static constexpr unsigned char kMoves[48] = {
        0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
        0,    1,    2,    3,    4,    5,    6,    7,    8,    9,    10,   11,   12,   13,   14,   15,
        0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80};
    const __m128i down = loadLane(kMoves + 16 + rest);
    const __m128i earlier = _mm_shuffle_epi8(lane, loadLane(kMoves + rest));
    const __m128i later = _mm_blendv_epi8(_mm_shuffle_epi8(lane, down), loadLane(end - 16), down);
    return fold<128>(earlier, later);
}

/// @return the remainder of `lane` with 32 zero bits behind it.
KRO_CLMUL std::uint32_t reduce(__m128i lane)
{
    constexpr std::int64_t kPower96 = powerOfX(96);
    constexpr std::int64_t kPower64 = powerOfX(64);
    const __m128i powers = _mm_set_epi64x(kPower64, kPower96);
    const __m128i division = _mm_set_epi64x(kDivisor, kQuotient);
    const __m128i low_word = _mm_set_epi32(0, 0, 0, -1);
    lane =
        _mm_xor_si128(_mm_srli_si128(lane, 8), _mm_clmulepi64_si128(lane, powers, 0x00));  // 96 bits are left
    const __m128i first = _mm_and_si128(lane, low_word);
    lane = _mm_xor_si128(_mm_srli_si128(lane, 4), _mm_clmulepi64_si128(first, powers, 0x10));  // 64 bits
    __m128i times = _mm_clmulepi64_si128(_mm_and_si128(lane, low_word), division, 0x00);
    times = _mm_clmulepi64_si128(_mm_and_si128(times, low_word), division, 0x10);
    return static_cast<std::uint32_t>(_mm_extract_epi32(_mm_xor_si128(lane, times), 1));
}

/// @param length  at least 16.
KRO_CLMUL std::uint32_t crcByMultiplication(std::uint32_t running, const unsigned char* data,
                                            std::size_t length)
{
    const unsigned char* const end = data + length;
    __m128i lane = _mm_xor_si128(loadLane(data), _mm_cvtsi32_si128(static_cast<int>(running)));
    if (length >= 128) {  // four lanes side by side hide the latency of a multiplication
        __m128i second = loadLane(data + 16);
        __m128i third = loadLane(data + 32);
        __m128i fourth = loadLane(data + 48);
        data += 64;
        for (; end - data >= 64; data += 64) {
            lane = fold<512>(lane, loadLane(data));
            second = fold<512>(second, loadLane(data + 16));
            third = fold<512>(third, loadLane(data + 32));
            fourth = fold<512>(fourth, loadLane(data + 48));
        }
        lane = fold<128>(fold<128>(fold<128>(lane, second), third), fourth);
    } else {
        data += 16;
    }
    for (; end - data >= 16; data += 16) lane = fold<128>(lane, loadLane(data));
    if (data != end) lane = foldRest(lane, end, static_cast<std::size_t>(end - data));
    return reduce(lane);
}

#elif defined(__aarch64__)
/// The instruction's name without its size, in the assembler's own words: the compilers' intrinsics want the
/// whole file built for processors that have it.
#define KRO_CRC_STEP(instruction, word_register, running, word) \
    asm(".arch_extension crc\n\t" instruction " %w0, %w0, " word_register : "+r"(running) : "r"(word))

std::uint32_t crcByInstruction(std::uint32_t running, const unsigned char* data, std::size_t length)
{
    for (; length >= 8; data += 8, length -= 8)
        KRO_CRC_STEP("crc32x", "%x1", running, load<std::uint64_t>(data));
    if ((length & 4) != 0) {
        KRO_CRC_STEP("crc32w", "%w1", running, load<std::uint32_t>(data));
        data += 4;
    }
    if ((length & 2) != 0) {
        KRO_CRC_STEP("crc32h", "%w1", running, std::uint32_t{load<std::uint16_t>(data)});
        data += 2;
    }
    if ((length & 1) != 0) KRO_CRC_STEP("crc32b", "%w1", running, std::uint32_t{*data});
    return running;
}
#endif
}  // namespace

std::uint32_t detail::crcBytewise(std::uint32_t running, const unsigned char* data, std::size_t length)
{
    for (std::size_t i = 0; i < length; ++i) running = crc32_tab[(running ^ data[i]) & 0xFF] ^ (running >> 8);
    return running;
}

std::uint32_t detail::crcSlicingBy8(std::uint32_t running, const unsigned char* data, std::size_t length)
{
    for (; length >= 8; data += 8, length -= 8) {
        const std::uint64_t word = load<std::uint64_t>(data) ^ running;
        running = s_slicing[7][word & 0xFF] ^ s_slicing[6][(word >> 8) & 0xFF] ^
                  s_slicing[5][(word >> 16) & 0xFF] ^ s_slicing[4][(word >> 24) & 0xFF] ^
                  s_slicing[3][(word >> 32) & 0xFF] ^ s_slicing[2][(word >> 40) & 0xFF] ^
                  s_slicing[1][(word >> 48) & 0xFF] ^ s_slicing[0][word >> 56];
    }
    return crcBytewise(running, data, length);
}

std::uint32_t detail::crcFastest(std::uint32_t running, const unsigned char* data, std::size_t length)
{
#if defined(__x86_64__)
    if (length >= 16 && __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1"))
        return crcByMultiplication(running, data, length);
#elif defined(__aarch64__)
    static const bool s_has_instructions = (getauxval(AT_HWCAP) & HWCAP_CRC32) != 0;
    if (s_has_instructions) return crcByInstruction(running, data, length);
#endif
    return crcSlicingBy8(running, data, length);
}

unsigned int GetCRC32(unsigned int crc, unsigned char* data, int length)
{
    if (length == 0) return crc;
    // Settled: a negative length is no error but a count of 2 GiB or more, as the 32 bits of an int can tell
    // either way. A caller's buffer is that long, or its fault shows at once.
    const std::size_t count = static_cast<unsigned int>(length);
    return ~detail::crcFastest(~crc, data, count);
}

}  // namespace kro
