// Value conversions of the settings and media handlers and the walks of the
// DSP service's status replies.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "mcu/handlers.h"
#include "mcu/mcu_state.h"
#include "media/media.h"

TEST(Conversions, VolumeBassAndChannelMask)
{
    EXPECT_EQ(vol_byte_to_db(0), -103.5);
    for (int v = 1; v < 256; ++v) EXPECT_EQ(vol_byte_to_db(static_cast<uint8_t>(v)), v / 2.0 - 50.0) << v;

    constexpr int gains[30] = {100, 89, 79, 70, 63, 56, 50, 44, 39, 35, 31, 28, 25, 22, 19,
                               17,  15, 14, 12, 11, 10, 8,  7,  7,  6,  5,  5,  4,  3,  3};
    for (int v = 0; v < 256; ++v) EXPECT_EQ(bm_gain_from_byte(static_cast<uint8_t>(v)), v < 30 ? gains[v] : 0) << v;

    EXPECT_EQ(remap_channel_mask(0xE080), 0u);  // bits 7 and 13..15 are dropped
    const unsigned moved[13] = {0x001, 0x002, 0x010, 0x020, 0x004, 0x008, 0x040, 0, 0x080, 0x100, 0x200, 0x400, 0x800};
    for (int bit = 0; bit < 13; ++bit)
        EXPECT_EQ(remap_channel_mask(static_cast<uint16_t>(1u << bit)), moved[bit]) << bit;
}

TEST(Conversions, RecordingIndexFromTheNames)
{
    char tmpl[] = "/tmp/media_scan_XXXXXX";
    std::filesystem::path dir = mkdtemp(tmpl);
    // Names added, then the next index. Tones, names without a number and negative numbers count for
    // nothing; 64 wraps to 1; a number beyond int is held at INT_MAX, not wrapped into a negative.
    const std::pair<std::vector<const char*>, int> steps[] = {
        {{}, 1}, {{"index_07.wav", "index_12.wav"}, 13},
        {{"tone_40.wav", "index_.wav", "index_x.wav", "index_-9.wav"}, 13},
        {{"index_64.wav"}, 1}, {{"index_99999999999.wav"}, 64}};
    for (const auto& [names, next] : steps) {
        for (const char* n : names) fclose(fopen((dir / n).c_str(), "w"));
        EXPECT_EQ(scan_next_index(opendir(dir.c_str())), next) << testing::PrintToString(names);
    }
    std::filesystem::remove_all(dir);
}

TEST(Conversions, AudioInfoAndChannelEnergyWalks)
{
    // Payload bytes 0 and 1 of the report, starting from {0, 0xEE}.
    struct { std::string reply; uint8_t b0, b1; } rows[] = {
        {"{Dolby_Atmos_Bit:1,Dolby_Surround_Bit:1,Audio_Format:77}", 0xCD, 0xEE},
        {"{Dolby_Atmos_Bit:2,Dolby_Surround_Bit:0,Audio_Format:3}", 0x03, 0xEE},
        {"{FS:8000}", 0, 0},        {"{FS:11025}", 0, 1},   {"{FS:12000}", 0, 2},   {"{FS:16000}", 0, 3},
        {"{FS:22050}", 0, 4},       {"{FS:24000}", 0, 5},   {"{FS:32000}", 0, 6},   {"{FS:44100}", 0, 7},
        {"{FS:48000}", 0, 8},       {"{FS:64000}", 0, 9},   {"{FS:88200}", 0, 10},  {"{FS:96000}", 0, 11},
        {"{FS:128000}", 0, 12},     {"{FS:176400}", 0, 13}, {"{FS:192000}", 0, 14},
        {"{FS:44000,Other:7,Dolby_Atmos_Bit}", 0, 0xEE},  // unknown rate; a key with nothing behind ends
    };
    for (auto r : rows) {
        uint8_t p[12] = {0, 0xEE};
        walk_audio_info(r.reply.data(), p);
        EXPECT_EQ(p[0], r.b0) << r.reply;
        EXPECT_EQ(p[1], r.b1) << r.reply;
    }
    // The dialog flag: the first value is a change, 0 too.
    mcu_state.last_dialog_value = -1;
    for (auto [reply, changed, active] : {std::tuple{"{DTS_DIALOG_BIT:0}", 1, 0}, {"{DTS_DIALOG_BIT:0}", 0, 0},
                                          {"{DTS_DIALOG_BIT:3}", 1, 1}}) {
        mcu_state.dialog_changed = 0;
        std::string text = reply;
        uint8_t p[12] = {};
        walk_audio_info(text.data(), p);
        EXPECT_EQ(mcu_state.dialog_changed, changed) << reply;
        EXPECT_EQ(mcu_state.dialog_active, active) << reply;
    }

    // Nibbles of bytes 4 to 9; a repeated key ORs again, a value above 15 runs into the high nibble.
    uint8_t p[12] = {};
    std::string r = "{ENG_L:1,ENG_R:2,ENG_C:3,ENG_SUB:4,ENG_LS:5,ENG_RS:6,ENG_LRS:7,ENG_RRS:8,"
                    "ENG_LTF:9,ENG_RTF:10,ENG_LTR:11,ENG_RTR:12}";
    walk_channel_energy(r.data(), p);
    EXPECT_EQ(std::vector<uint8_t>(p + 4, p + 10), (std::vector<uint8_t>{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC}));
    r = "{ENG_L:1,ENG_L:4,ENG_LTR:2,ENG_RTR:17}";
    std::fill(p, p + 12, 0);
    walk_channel_energy(r.data(), p);
    EXPECT_EQ(p[4], 0x50);
    EXPECT_EQ(p[9], 0x31);
}
