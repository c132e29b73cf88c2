// MD5 against RFC 1321's suite and split feeds; the OTA CRC-32 table form.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "update/md5.h"
#include "update/ota.h"

namespace {

std::string md5_of(const std::vector<std::string_view>& pieces)
{
    md5_context ctx;
    md5_init(&ctx);
    for (auto p : pieces) md5_update(&ctx, p.data(), p.size());
    uint8_t d[16];
    md5_final(&ctx, d);
    char hex[33];
    for (int i = 0; i < 16; ++i) snprintf(hex + 2 * i, 3, "%02x", d[i]);
    return hex;
}

}  // namespace

TEST(Md5, Rfc1321SuitePaddingEdgesAndSplitFeeds)
{
    const std::string a(120, 'a');
    const std::pair<std::string, const char*> known[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        // 55 bytes take one padding byte, 56 a whole further block.
        {a.substr(0, 55), "ef1772b6dff9a122358552954ad0df65"},
        {a.substr(0, 56), "3b0c8ac703f828b04c6c197006d17218"},
        {a.substr(0, 64), "014842d480b571495a4a0363793f7367"},
        {a, "5f61c0ccad4cac44c75ff505e1f1e537"},
    };
    for (const auto& [text, digest] : known) EXPECT_EQ(md5_of({text}), digest) << text.size();
    EXPECT_EQ(md5_of({std::string_view(a).substr(0, 50), std::string_view(a).substr(50)}), known[10].second);

    std::string block(4096, '\0');
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>((i * 7 + 3) & 255);
    std::string_view bv(block);
    EXPECT_EQ(md5_of({bv}), "d105289f5617c241f52a191c6b2fc809");
    EXPECT_EQ(md5_of({bv.substr(0, 1), bv.substr(1, 63), bv.substr(64)}), md5_of({bv}));
}

TEST(Md5, EmptyUpdateAndCountCarry)
{
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

TEST(OtaCrc, ComplementedTable)
{
    uint32_t table[256];
    ota_crc_build_table(table);
    EXPECT_EQ(table[0], 0xD202EF8Du);
    EXPECT_EQ(table[255], 0xFF000000u);
    const auto* digits = reinterpret_cast<const uint8_t*>("123456789");
    EXPECT_EQ(ota_crc_update(table, 0, digits, 9), 0xCBF43926u);
    EXPECT_EQ(ota_crc_update(table, ota_crc_update(table, 0, digits, 4), digits + 4, 5), 0xCBF43926u);
    EXPECT_EQ(ota_crc_update(table, 0, digits, 0), 0u);
}
