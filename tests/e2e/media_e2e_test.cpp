// Recording, tones and music, Atmos and DTS:X and the audio reports, on the real daemon.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "tests/e2e/harness.h"

using e2e::bytes;
using strings = std::vector<std::string>;

namespace {

const char* const AUDIO_INFO = "{Dolby_Atmos_Bit:1,Dolby_Surround_Bit:2,Audio_Format:65,FS:176400,DTS_DIALOG_BIT:0}";
const char* const ENERGIES = "{ENG_L:1,ENG_R:2,ENG_C:3,ENG_SUB:4,ENG_LS:5,ENG_RS:6,ENG_LRS:7,ENG_RRS:8,"
                             "ENG_LTF:9,ENG_RTF:10,ENG_LTR:11,ENG_RTR:12}";

bytes record_frame(uint8_t byte4, uint8_t file_status, uint8_t byte11 = 0)
{
    return e2e::mcu_frame(0x20, {0x01, 0x49, 0x05, 0, byte4, file_status, 0x01, 0x0D, 0x01, 0, 0, byte11});
}

bytes audio_frame(uint8_t byte2, uint8_t fail_a = 0, uint8_t fail_b = 0)
{
    return e2e::mcu_frame(0x21, {0x81, 13, byte2, 0, 0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, fail_a, fail_b});
}

// Commands from the n-th on; the music monitor's own queries left out when asked.
strings since(const e2e::Sandbox& sb, size_t n, bool drop_monitor = false)
{
    strings all = sb.dsp_commands(), out;
    for (size_t i = n; i < all.size(); ++i)
        if (!drop_monitor || all[i] != "dsp rec musicState\n") out.push_back(all[i]);
    return out;
}

void poke_pipe(const e2e::Sandbox& sb)
{
    int fd = open(sb.host_path("/tmp/mcu_if_pipe").c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "x", 1), 1);
    close(fd);
}

// Sanitizer builds of the daemon report on its stderr.
void expect_clean(const e2e::Sandbox& sb)
{
    EXPECT_EQ(sb.errors().find("Sanitizer"), std::string::npos) << sb.errors();
}

void start_with_reports(e2e::Sandbox& sb)
{
    sb.dsp_reply("dsp vmb_Get_AudioInfo", AUDIO_INFO);
    sb.dsp_reply("dsp s4_ch_eng", ENERGIES);
    sb.start();
    ASSERT_EQ(sb.read_mcu_frame(5000), record_frame(0, 0)) << sb.output();
}

}  // namespace

TEST(MediaE2E, RecordControlNumberingStateFrameAndFileMoves)
{
    e2e::Sandbox sb;
    for (const char* f : {"index_07.wav", "index_12.wav", "tone_40.wav", "index_x.wav"})
        sb.write_file(std::string("/sdk/recorded/") + f, "x");
    sb.dsp_reply("dsp rec state", "state:2");
    sb.standin("/sdk/bin/music_file", 1);
    sb.start();
    EXPECT_EQ(sb.read_mcu_frame(5000), record_frame(0xF2, 0));

    sb.dsp_reply("dsp rec state", "state:1");
    size_t n = sb.dsp_commands().size();
    sb.send_frame(0x0A, {1});
    ASSERT_TRUE(sb.wait_output("[MCU IF] start recording...\n", 3000)) << sb.output();
    EXPECT_EQ(since(sb, n), (strings{"dsp rec mode 1 /sdk/recorded/index_13.wav\n", "dsp rec state\n"}));
    sb.send_frame(0x0A, {32});
    bytes f = sb.read_mcu_frame(3000);
    ASSERT_EQ(f.size(), 16u);
    EXPECT_LE(f[7], 2);  // seconds since the start
    f[7] = 0;
    f[15] = record_frame(0, 0)[15];
    EXPECT_EQ(f, record_frame(0, 0));

    sb.dsp_reply("dsp rec state", "state:3");
    sb.send_frame(0x0A, {2});
    ASSERT_TRUE(sb.wait_output("[MCU IF] stop recording...\n", 3000)) << sb.output();
    sb.send_frame(0x0A, {2});
    ASSERT_TRUE(sb.wait_output("[MCU IF] not recording \n", 3000));
    sb.send_frame(0x0A, {0});
    ASSERT_TRUE(sb.wait_output("[MCU IF] unknown record music control command\n", 3000));

    // Highest number 64 wraps to the first file.
    sb.write_file("/sdk/recorded/index_64.wav", "x");
    sb.dsp_reply("dsp rec state", "state:1");
    n = sb.dsp_commands().size();
    sb.send_frame(0x0A, {1});
    sb.send_frame(0x0A, {32});
    EXPECT_EQ(sb.read_mcu_frame(3000)[2], 0x20);
    EXPECT_EQ(since(sb, n)[0], "dsp rec mode 1 /sdk/recorded/index_01.wav\n");

    // A failed export, then a good import: the export failure stays.
    sb.dsp_reply("dsp rec state", "state:0");
    sb.send_frame(0x0A, {3});
    EXPECT_EQ(sb.read_mcu_frame(3000), record_frame(0, 0x04));
    EXPECT_EQ(sb.read_mcu_frame(3000), record_frame(0, 0x08));
    sb.standin("/sdk/bin/music_file", 0);
    sb.send_frame(0x0A, {4});
    EXPECT_EQ(sb.read_mcu_frame(3000), record_frame(0, 0x09));
    EXPECT_EQ(sb.read_mcu_frame(3000), record_frame(0, 0x08));
    EXPECT_EQ(sb.standin_calls(), (strings{"modprobe spi-slave-vmb", "music_file export", "music_file import"}));
    EXPECT_NE(sb.output().find("[MCU IF] exporting .wav files failed\n[MCU IF] importing .wav files succeed\n"),
              std::string::npos);
    expect_clean(sb);
}

TEST(MediaE2E, RecordWaitsFollowTheClockOfTheQuery)
{
    e2e::Sandbox sb;
    sb.dsp_reply("dsp rec state", "state:0");
    sb.start();
    ASSERT_FALSE(sb.read_mcu_frame(5000).empty());
    // Never confirmed: the wait gives up after two whole seconds.
    sb.send_frame(0x0A, {1});
    ASSERT_TRUE(sb.wait_output("[MCU IF] failed to start record mode: 0\n", 4000)) << sb.output();
    // Confirmed late within the first query: that query's clock counts.
    sb.dsp_reply("dsp rec state", "state:1");
    sb.send_frame(0x0A, {32});
    ASSERT_FALSE(sb.read_mcu_frame(3000).empty());
    sb.dsp_reply("dsp rec state", "state:3");
    sb.dsp_delay_ms("dsp rec state", 2200);
    sb.send_frame(0x0A, {2});
    EXPECT_TRUE(sb.wait_output("[MCU IF] stop recording...\n", 4000)) << sb.output();
    expect_clean(sb);
}

TEST(MediaE2E, AtmosRowsFailureBytesAndDtsx)
{
    e2e::Sandbox sb;
    start_with_reports(sb);
    size_t n = sb.dsp_commands().size();
    sb.send_frame(6, bytes(11, 0));
    EXPECT_EQ(sb.read_mcu_frame(3000), audio_frame(0x02));
    EXPECT_EQ(since(sb, n),
              (strings{"dsp atmos 2 0\n", "dsp atmos 8 0 0\n", "dsp atmos 14 0\n", "dsp atmos 8 1 0.000000\n",
                       "dsp atmos 8 2 0.000000\n", "dsp atmos 6 0\n", "dsp atmos 4 1\n", "dsp atmos 9 0 1\n",
                       "dsp atmos 9 1 0\n", "dsp atmos 9 2 0\n", "dsp atmos 9 3 0\n", "dsp atmos 9 4 0\n",
                       "dsp atmos 1 0\n", "dsp atmos 3 0\n", "dsp atmos 10 0\n", "dsp atmos 5 0\n",
                       "dsp atmos 11 0\n", "dsp atmos 7 2 0\n", "dsp atmos 7 1 0\n", "dsp atmos 7 0 0\n",
                       "dsp atmos 15 0\n", "dsp vmb_Get_AudioInfo\n", "dsp s4_ch_eng\n"}));

    for (const char* p : {"dsp atmos 2 ", "dsp atmos 8 0 ", "dsp atmos 8 1 ", "dsp atmos 3 ", "dsp atmos 5 ",
                          "dsp atmos 15 "})
        sb.dsp_reply(p, "[refused]");
    bytes changed = {0x3F, 255, 0, 0x40, 0, 0, 0, 0, 0x70, 0x80, 7};
    n = sb.dsp_commands().size();
    sb.send_frame(6, changed);
    EXPECT_EQ(sb.read_mcu_frame(3000), audio_frame(0x02, 0x31, 0x20));
    EXPECT_EQ(since(sb, n),
              (strings{"dsp atmos 2 15\n", "dsp atmos 8 0 3\n", "dsp atmos 8 1 2.550000\n", "dsp atmos 9 0 2\n",
                       "dsp atmos 3 1\n", "dsp atmos 10 1\n", "dsp atmos 5 1\n", "dsp atmos 7 0 8\n",
                       "dsp atmos 15 7\n", "dsp vmb_Get_AudioInfo\n", "dsp s4_ch_eng\n"}));
    // Unchanged, then the mapped field to 3 (nothing) and to 2 (0).
    n = sb.dsp_commands().size();
    sb.send_frame(6, changed);
    EXPECT_EQ(sb.read_mcu_frame(3000), audio_frame(0x02));
    changed[3] = 0xC0;
    sb.send_frame(6, changed);
    EXPECT_EQ(sb.read_mcu_frame(3000), audio_frame(0x02));
    changed[3] = 0x80;
    sb.send_frame(6, changed);
    EXPECT_EQ(sb.read_mcu_frame(3000), audio_frame(0x02));
    strings atmos;
    for (const auto& c : since(sb, n))
        if (c.starts_with("dsp atmos")) atmos.push_back(c);
    EXPECT_EQ(atmos, strings{"dsp atmos 9 0 0\n"});

    n = sb.dsp_commands().size();
    sb.send_frame(11, {0, 0, 0});
    sb.send_frame(11, {0x80, 0, 0});
    sb.send_frame(11, {0x80, 255, 0x10});
    sb.send_frame(0x0A, {32});
    EXPECT_EQ(sb.read_mcu_frame(3000)[2], 0x20);  // no audio report from DTS:X
    EXPECT_EQ(since(sb, n), (strings{"dsp dtsx 4 0\n", "dsp dtsx 1 0\n", "dsp dtsx 5 0\n", "dsp dtsx 3 0\n",
                                     "dsp dtsx 2 0\n", "dsp dtsx 0 0\n", "dsp dtsx 2 255\n", "dsp rec state\n"}));
    expect_clean(sb);
}

TEST(MediaE2E, PipeReportsAppliedBitsAndDialog)
{
    e2e::Sandbox sb;
    start_with_reports(sb);
    sb.send_frame(5, bytes(12, 100));
    sb.send_frame(0x0A, {32});
    ASSERT_EQ(sb.read_mcu_frame(3000), record_frame(0, 0));
    poke_pipe(sb);
    // The first dialog value is a change, so a record state frame follows.
    EXPECT_EQ(sb.read_mcu_frame(3000), audio_frame(0x04));
    EXPECT_EQ(sb.read_mcu_frame(3000), record_frame(0, 0));
    sb.dsp_reply("dsp vmb_Get_AudioInfo", "{DTS_DIALOG_BIT:1}");
    poke_pipe(sb);
    EXPECT_EQ(sb.read_mcu_frame(3000),
              e2e::mcu_frame(0x21, {0, 13, 0, 0, 0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0, 0}));
    EXPECT_EQ(sb.read_mcu_frame(3000), record_frame(0, 0, 0x40));
    poke_pipe(sb);
    EXPECT_EQ(sb.read_mcu_frame(3000)[2], 0x21);
    poke_pipe(sb);
    EXPECT_EQ(sb.read_mcu_frame(3000)[2], 0x21);  // no dialog change, no record frame between
    expect_clean(sb);
}

TEST(MediaE2E, MusicOwnsTheSourceAndTheMonitorSeesTheEnd)
{
    e2e::Sandbox sb;
    sb.dsp_reply("dsp rec musicState", "musicState:1");
    start_with_reports(sb);
    sb.send_frame(2, {0x03, 0, 0, 0});
    ASSERT_TRUE(sb.wait_dsp_command("dsp vmb_input_source 3\n", 3000));
    size_t n = sb.dsp_commands().size();
    sb.send_frame(9, {0x60, 5, 0xFF, 0x1F});
    EXPECT_EQ(sb.read_mcu_frame(3000), audio_frame(0x20 | 0x40));  // mix mode applied, playing
    strings c = since(sb, n);
    ASSERT_GE(c.size(), 4u);
    EXPECT_EQ(strings(c.begin(), c.begin() + 4),
              (strings{"dsp vmb_input_source 0\n", "dsp matrix chmap 4095\n",
                       "dsp rec music 1 /sdk/recorded/index_05.wav\n", "dsp rec musicState\n"}));
    n = sb.dsp_commands().size();
    sb.send_frame(9, {0x40, 6});
    EXPECT_EQ(sb.read_mcu_frame(3000), audio_frame(0x40));
    c = since(sb, n, true);
    EXPECT_EQ(strings(c.begin(), c.begin() + 2),
              (strings{"dsp matrix unsetChmap\n", "dsp rec music 1 /sdk/recorded/index_06.wav\n"}));

    sb.dsp_reply("dsp rec musicState", "musicState:3");  // the file ends
    EXPECT_EQ(sb.read_mcu_frame(3000), audio_frame(0));
    n = sb.dsp_commands().size();
    sb.send_frame(9, {0x00});
    EXPECT_EQ(sb.read_mcu_frame(3000), audio_frame(0));
    EXPECT_EQ(since(sb, n), (strings{"dsp rec music 0\n", "dsp vmb_input_source 3\n", "dsp vmb_Get_AudioInfo\n",
                                     "dsp s4_ch_eng\n"}));
    sb.send_frame(9, {0x00});
    EXPECT_EQ(sb.read_mcu_frame(3000), audio_frame(0));
    EXPECT_TRUE(sb.wait_output(
        "[MCU IF] wrong command for current playing state: playing = 0, cmd = 00\n", 1000));

    // A source the MCU chose during the music stays at the stop.
    sb.dsp_reply("dsp rec musicState", "musicState:1");
    sb.send_frame(9, {0x40, 7});
    EXPECT_EQ(sb.read_mcu_frame(3000), audio_frame(0x40));
    sb.send_frame(2, {0x04, 0, 0, 0});
    ASSERT_TRUE(sb.wait_dsp_command("dsp vmb_input_source 4\n", 3000));
    n = sb.dsp_commands().size();
    sb.send_frame(9, {0x00});
    EXPECT_EQ(sb.read_mcu_frame(3000), audio_frame(0x20));
    EXPECT_EQ(since(sb, n, true),
              (strings{"dsp rec music 0\n", "dsp vmb_Get_AudioInfo\n", "dsp s4_ch_eng\n"}));
    expect_clean(sb);
}

TEST(MediaE2E, TonePathGainAndWaits)
{
    e2e::Sandbox sb;
    sb.dsp_reply("dsp alter state", "state:1");
    start_with_reports(sb);
    // A tone already playing: one report with the playing bit, state unchanged.
    sb.send_frame(9, {0x50, 1, 0, 0, 10});
    EXPECT_EQ(sb.read_mcu_frame(3000), audio_frame(0x40));
    EXPECT_TRUE(sb.wait_output("[MCU IF] ignore tone request\n", 1000));

    sb.dsp_replies("dsp alter state", {"state:0", "state:1"});
    sb.dsp_reply("dsp alter alterGain", "[refused]");
    size_t n = sb.dsp_commands().size();
    sb.send_frame(9, {0x70, 2, 0x80, 0, 10});  // a mask that gives 0: chmap 3
    EXPECT_EQ(sb.read_mcu_frame(3000), audio_frame(0x40));
    EXPECT_EQ(since(sb, n), (strings{"dsp alter state\n", "dsp alter alterGain 10\n",
                                     "dsp alter /sdk/recorded/tone_02.wav mode=1 chmap=3\n", "dsp alter state\n",
                                     "dsp vmb_Get_AudioInfo\n", "dsp s4_ch_eng\n"}));
    // The refused gain is sent again; this tone never starts.
    sb.dsp_reply("dsp alter state", "state:0");
    n = sb.dsp_commands().size();
    sb.send_frame(9, {0x70, 3, 0x01, 0x10, 10});
    EXPECT_EQ(sb.read_mcu_frame(4000), audio_frame(0));
    strings c = since(sb, n);
    ASSERT_GE(c.size(), 3u);
    EXPECT_EQ(c[1], "dsp alter alterGain 10\n");
    EXPECT_EQ(c[2], "dsp alter /sdk/recorded/tone_03.wav mode=1 chmap=2049\n");
    EXPECT_TRUE(sb.wait_output("[MCU IF] failed to play /sdk/recorded/tone_03.wav\n", 1000));
    expect_clean(sb);
}

TEST(MediaE2E, PollGateWithAllWorkersRunning)
{
    e2e::Sandbox sb;
    sb.dsp_reply("dsp rec musicState", "musicState:1");
    start_with_reports(sb);
    sb.send_frame(2, {0x00, 0, 0, 0x04});  // polling on
    EXPECT_EQ(sb.read_mcu_frame(3000)[2], 0x21);
    EXPECT_EQ(sb.read_mcu_frame(3000)[2], 0x21);
    // Music (the monitor), the pipe, the poll and handlers on the main thread at once.
    sb.send_frame(9, {0x40, 1});
    for (uint8_t i = 0; i < 5; ++i) {
        poke_pipe(sb);
        sb.send_frame(6, bytes(11, i));
    }
    bool playing = false;
    for (int i = 0; i < 20 && !playing; ++i) {
        bytes f = sb.read_mcu_frame_cmd(0x21, 3000);
        playing = f.size() == 16 && (f[5] & 0x40);
    }
    EXPECT_TRUE(playing);
    sb.send_frame(9, {0x00});
    sb.send_frame(2, {0x00, 0, 0, 0x00});  // polling off
    sb.drain(800);
    EXPECT_TRUE(sb.drain(800).empty());
    expect_clean(sb);
}
