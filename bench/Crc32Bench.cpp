// CRC-32 in bytes per second: GetCRC32 beside zlib's crc32, slicing by 8 and the bytewise definition.

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdint>
#include <numeric>
#include <vector>

#include "Crc32.h"
#include "Crc32Kernels.h"

namespace
{

template <typename Crc>
void measure(benchmark::State& state, Crc crc)
{
    std::vector<unsigned char> data(static_cast<std::size_t>(state.range(0)));
    std::iota(data.begin(), data.end(), static_cast<unsigned char>(7));
    std::uint32_t value = 0;
    for (auto _ : state) benchmark::DoNotOptimize(value = crc(value, data));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_GetCRC32(benchmark::State& state)
{
    measure(state, [](std::uint32_t crc, auto& data) {
        return kro::GetCRC32(crc, data.data(), static_cast<int>(data.size()));
    });
}

void BM_ZlibCrc32(benchmark::State& state)
{
    measure(state, [](std::uint32_t crc, auto& data) {
        return static_cast<std::uint32_t>(crc32(crc, data.data(), static_cast<uInt>(data.size())));
    });
}

void BM_SlicingBy8(benchmark::State& state)
{
    measure(state, [](std::uint32_t crc, auto& data) {
        return ~kro::detail::crcSlicingBy8(~crc, data.data(), data.size());
    });
}

void BM_Bytewise(benchmark::State& state)
{
    measure(state, [](std::uint32_t crc, auto& data) {
        return ~kro::detail::crcBytewise(~crc, data.data(), data.size());
    });
}

void lengths(benchmark::internal::Benchmark* bench)
{
    bench->ArgName("bytes");
    for (const int bytes :
         {8, 15, 16, 31, 64, 65, 79, 127, 128, 191, 256, 1023, 4096, 64 << 10, 1 << 20, 16 << 20})
        bench->Arg(bytes);
}

BENCHMARK(BM_GetCRC32)->Apply(lengths);
BENCHMARK(BM_ZlibCrc32)->Apply(lengths);
BENCHMARK(BM_SlicingBy8)->Apply(lengths);
BENCHMARK(BM_Bytewise)->ArgName("bytes")->Arg(64)->Arg(64 << 10);

}  // namespace

BENCHMARK_MAIN();
