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
    EXPECT_EQ(remap_channel_mask(0xE080), 0u);  // bits 7 and 13..15 are dropped
    EXPECT_EQ(remap_channel_mask(0xFFFF), 0xFFFu);
    const unsigned moved[13] = {0x001, 0x002, 0x010, 0x020, 0x004, 0x008, 0x040, 0, 0x080, 0x100, 0x200, 0x400, 0x800};
    for (int bit = 0; bit < 13; ++bit) EXPECT_EQ(remap_channel_mask(static_cast<uint16_t>(1u << bit)), moved[bit]) << bit;
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

TEST(Media, AudioInfoWalkEdges)
{
    mcu_state.last_dialog_value = -1;
    uint8_t p[12] = {};
    p[1] = 9;
    // An unknown rate leaves the code; a key with nothing behind it ends the walk.
    std::string r = "{FS:44000,Other:7,Dolby_Atmos_Bit:2,DTS_DIALOG_BIT:0,FS";
    walk_audio_info(r.data(), p);
    EXPECT_EQ(p[0], 0);
    EXPECT_EQ(p[1], 9);
    EXPECT_EQ(mcu_state.dialog_changed, 1);  // the first value is a change, 0 too

    // A repeated key ORs again; a value above 15 runs into the high nibble.
    r = "{ENG_L:1,ENG_L:4,ENG_LTR:2,ENG_RTR:17}";
    walk_channel_energy(r.data(), p);
    EXPECT_EQ(p[4], 0x50);
    EXPECT_EQ(p[9], 0x31);
}
