// Digest loops as the firmware path runs them: MD5 and the OTA CRC pass over
// 4096-byte blocks, against zlib's crc32 on the same blocks.
//
//   bench_digest --benchmark_min_time=0.5
//
// bench_daemon runs the same loops over a file, beside md5sum and zlib.
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <vector>

#include "update/md5.h"
#include "update/ota.h"

namespace {

const std::vector<uint8_t>& data()
{
    static std::vector<uint8_t> d = [] {
        std::vector<uint8_t> v(16 << 20);
        uint32_t x = 8137;
        for (auto& b : v) b = static_cast<uint8_t>((x = x * 1103515245 + 12345) >> 16);
        return v;
    }();
    return d;
}

void BM_md5(benchmark::State& state)
{
    const auto& d = data();
    for (auto _ : state) {
        md5_context ctx;
        md5_init(&ctx);
        for (size_t at = 0; at < d.size(); at += OTA_BLOCK) md5_update(&ctx, d.data() + at, OTA_BLOCK);
        uint8_t digest[16];
        md5_final(&ctx, digest);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * d.size()));
}
BENCHMARK(BM_md5)->Unit(benchmark::kMillisecond);

void BM_ota_crc(benchmark::State& state)
{
    const auto& d = data();
    static uint32_t table[256], lanes[8][256];
    ota_crc_build_table(table, lanes);
    for (auto _ : state) {
        uint32_t crc = 0;
        for (size_t at = 0; at < d.size(); at += OTA_BLOCK) crc = ota_crc_update(table, lanes, crc, d.data() + at, OTA_BLOCK);
        benchmark::DoNotOptimize(crc);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * d.size()));
}
BENCHMARK(BM_ota_crc)->Unit(benchmark::kMillisecond);

void BM_zlib_crc32(benchmark::State& state)
{
    const auto& d = data();
    for (auto _ : state) {
        uLong crc = crc32(0, nullptr, 0);
        for (size_t at = 0; at < d.size(); at += OTA_BLOCK) crc = crc32(crc, d.data() + at, OTA_BLOCK);
        benchmark::DoNotOptimize(crc);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * d.size()));
}
BENCHMARK(BM_zlib_crc32)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
