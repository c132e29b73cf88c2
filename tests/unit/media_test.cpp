#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "mcu/handlers.h"
#include "mcu/mcu_state.h"
#include "media/media.h"

namespace fs = std::filesystem;

TEST(Media, RemapChannelMask)
{
    EXPECT_EQ(remap_channel_mask(0x0000), 0u);
    EXPECT_EQ(remap_channel_mask(0x0080), 0u);    // bit 7 is dropped
    EXPECT_EQ(remap_channel_mask(0xE000), 0u);    // and 13..15
    EXPECT_EQ(remap_channel_mask(0x1FFF), 0xFFFu);
    EXPECT_EQ(remap_channel_mask(0xFFFF), 0xFFFu);
    EXPECT_EQ(remap_channel_mask(0x0004), 0x010u);
    EXPECT_EQ(remap_channel_mask(0x0008), 0x020u);
    EXPECT_EQ(remap_channel_mask(0x0010), 0x004u);
    EXPECT_EQ(remap_channel_mask(0x0020), 0x008u);
    EXPECT_EQ(remap_channel_mask(0x0100), 0x080u);
    EXPECT_EQ(remap_channel_mask(0x1000), 0x800u);
}

namespace {
int next_index_of(std::initializer_list<const char*> names)
{
    char tmpl[] = "/tmp/media_scan_XXXXXX";
    fs::path dir = mkdtemp(tmpl);
    for (const char* n : names) fclose(fopen((dir / n).c_str(), "w"));
    int next = scan_next_index(opendir(dir.c_str()));
    fs::remove_all(dir);
    return next;
}
}  // namespace

TEST(Media, ScanNextIndex)
{
    EXPECT_EQ(next_index_of({}), 1);
    EXPECT_EQ(next_index_of({"index_07.wav", "index_12.wav"}), 13);
    EXPECT_EQ(next_index_of({"index_63.wav"}), 64);
    EXPECT_EQ(next_index_of({"index_64.wav", "index_02.wav"}), 1);
    // Tones, names without a number and negative numbers count for nothing.
    EXPECT_EQ(next_index_of({"tone_40.wav", "index_.wav", "index_x.wav", "index_-9.wav",
                             "index_05.wav"}),
              6);
    // A number beyond int is held at INT_MAX, not wrapped into a negative.
    EXPECT_EQ(next_index_of({"index_99999999999.wav"}), 64);
}

TEST(Media, AudioInfoWalk)
{
    mcu_state.last_dialog_value = -1;
    mcu_state.dialog_changed = 0;
    uint8_t p[12] = {};
    p[1] = 9;
    std::string r = "{Dolby_Atmos_Bit:1,Dolby_Surround_Bit:2,Audio_Format:65,FS:176400,DTS_DIALOG_BIT:0}";
    walk_audio_info(r.data(), p);
    EXPECT_EQ(p[0], 0x81);  // Atmos, Surround only for exactly 1, format & 0x3F
    EXPECT_EQ(p[1], 13);
    EXPECT_EQ(mcu_state.dialog_changed, 1);  // the first dialog value is a change, 0 too
    EXPECT_EQ(mcu_state.dialog_active, 0);

    mcu_state.dialog_changed = 0;
    r = "{FS:44000,Other:7,DTS_DIALOG_BIT:0,FS";  // unknown rate, trailing bare key
    walk_audio_info(r.data(), p);
    EXPECT_EQ(p[1], 13);
    EXPECT_EQ(mcu_state.dialog_changed, 0);
    r = "DTS_DIALOG_BIT:3";
    walk_audio_info(r.data(), p);
    EXPECT_EQ(mcu_state.dialog_changed, 1);
    EXPECT_EQ(mcu_state.dialog_active, 1);

    uint8_t e[12] = {};
    r = "{ENG_L:1,ENG_R:2,ENG_C:3,ENG_SUB:4,ENG_LS:5,ENG_RS:6,ENG_LRS:7,ENG_RRS:8,"
        "ENG_LTF:9,ENG_RTF:10,ENG_LTR:2,ENG_RTR:17,ENG_L:4}";
    walk_channel_energy(r.data(), e);
    const uint8_t want[6] = {0x52, 0x34, 0x56, 0x78, 0x9A, 0x31};  // ORed again, unmasked
    for (int i = 0; i < 6; ++i) EXPECT_EQ(e[4 + i], want[i]) << i;
}
