// MD5 against RFC 1321's suite and split feeds; the OTA CRC-32 against zlib.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "update/md5.h"
#include "update/ota.h"

// The digest of `text` fed in pieces of `piece` bytes.
static std::string md5_of(std::string_view text, size_t piece = SIZE_MAX)
{
    md5_context ctx;
    md5_init(&ctx);
    for (size_t at = 0; at < text.size(); at += piece)
        md5_update(&ctx, text.data() + at, std::min(piece, text.size() - at));
    uint8_t d[16];
    md5_final(&ctx, d);
    char hex[33];
    for (int i = 0; i < 16; ++i) snprintf(hex + 2 * i, 3, "%02x", d[i]);
    return hex;
}

TEST(Md5, Rfc1321SuiteSplitFeedsEmptyUpdateAndCountCarry)
{
    const std::string a(120, 'a');
    const std::pair<std::string, const char*> known[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        // 55 bytes take one padding byte, 56 a whole further block.
        {a.substr(0, 55), "ef1772b6dff9a122358552954ad0df65"},
        {a.substr(0, 56), "3b0c8ac703f828b04c6c197006d17218"},
        {a, "5f61c0ccad4cac44c75ff505e1f1e537"},
    };
    for (const auto& [text, digest] : known) EXPECT_EQ(md5_of(text), digest) << text.size();

    // At an odd address, so that the words are read from unaligned memory.
    std::string buf(10001, '\0');
    for (size_t i = 0; i < 10000; ++i) buf[i + 1] = static_cast<char>((i * 7 + 3) & 255);
    std::string_view text = std::string_view(buf).substr(1);
    for (size_t piece : std::initializer_list<size_t>{SIZE_MAX, 1, 55, 56, 63, 64, 4096})
        EXPECT_EQ(md5_of(text, piece), "941546d1c333e2f0d9efd902e5cb94b7") << piece;

    md5_context ctx, before;
    md5_init(&ctx);
    md5_update(&ctx, "xyz", 3);
    memcpy(&before, &ctx, sizeof ctx);
    md5_update(&ctx, nullptr, 0);
    EXPECT_EQ(memcmp(&before, &ctx, sizeof ctx), 0);
    ctx.byte_count[0] = 0xFFFFFFC0u;  // the byte count carries into its high word
    uint8_t zeros[64] = {};
    md5_update(&ctx, zeros, sizeof zeros);
    EXPECT_EQ(ctx.byte_count[0], 0u);
    EXPECT_EQ(ctx.byte_count[1], 1u);
}

TEST(OtaCrc, ComplementedFormGivesThePublishedCrc32)
{
    static uint32_t table[256], lanes[8][256];
    ota_crc_build_table(table, lanes);
    EXPECT_EQ(table[0], 0xD202EF8Du);
    EXPECT_EQ(table[255], 0xFF000000u);
    // From 0 and with no final step the value is zlib's crc32 itself.
    EXPECT_EQ(ota_crc_update(table, lanes, 0, reinterpret_cast<const uint8_t*>("123456789"), 9), 0xCBF43926u);

    // Lengths around the 32-byte groups of the lanes, at an odd address,
    // whole and streamed in 4096-byte blocks as the reception reads them.
    std::mt19937 rng(8137);
    std::vector<uint8_t> buf(3 * 4096 + 101);
    for (auto& b : buf) b = static_cast<uint8_t>(rng());
    const uint8_t* p = buf.data() + 1;
    for (size_t len : {1, 31, 32, 63, 64, 65, 95, 96, 97, 1000, 4095, 4096, 4097, 3 * 4096 + 100}) {
        uint32_t want = static_cast<uint32_t>(crc32(0, p, static_cast<uInt>(len)));
        EXPECT_EQ(ota_crc_update(table, lanes, 0, p, len), want) << len;
        uint32_t streamed = 0;
        for (size_t at = 0; at < len; at += OTA_BLOCK)
            streamed = ota_crc_update(table, lanes, streamed, p + at, std::min(OTA_BLOCK, len - at));
        EXPECT_EQ(streamed, want) << len;
    }
}
