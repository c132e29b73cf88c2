// Recording, tones and music, Atmos and DTS:X and the audio reports, on the real daemon.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "tests/e2e/harness.h"

using e2e::bytes;
using strings = std::vector<std::string>;

namespace {

bytes record_frame(uint8_t byte4, uint8_t file_status, uint8_t byte11 = 0)
{
    return e2e::mcu_frame(0x20, {0x01, 0x49, 0x05, 0, byte4, file_status, 0x01, 0x0D, 0x01, 0, 0, byte11});
}

// With the replies of start_with_reports: Atmos, format 65 & 0x3F, 176400 Hz.
bytes audio_frame(uint8_t byte2, uint8_t fail_a = 0, uint8_t fail_b = 0, uint8_t format = 0x81)
{
    return e2e::mcu_frame(0x21, {format, 13, byte2, 0, 0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, fail_a, fail_b});
}

// "a|b" -> {"a\n", "b\n"}
strings cmds(const std::string& list)
{
    strings out;
    size_t from = 0;
    for (size_t bar; (bar = list.find('|', from)) != std::string::npos; from = bar + 1)
        out.push_back(list.substr(from, bar - from) + "\n");
    out.push_back(list.substr(from) + "\n");
    return out;
}

class MediaE2E : public ::testing::Test {
protected:
    void start_with_reports()
    {
        sb.dsp_reply("dsp vmb_Get_AudioInfo",
                     "{Dolby_Atmos_Bit:1,Dolby_Surround_Bit:2,Audio_Format:65,FS:176400,DTS_DIALOG_BIT:0}");
        sb.dsp_reply("dsp s4_ch_eng", "{ENG_L:1,ENG_R:2,ENG_C:3,ENG_SUB:4,ENG_LS:5,ENG_RS:6,ENG_LRS:7,"
                                      "ENG_RRS:8,ENG_LTF:9,ENG_RTF:10,ENG_LTR:11,ENG_RTR:12}");
        sb.start();
        ASSERT_EQ(next(), record_frame(0, 0)) << sb.output();
    }
    bytes next() { return sb.read_mcu_frame(4000); }
    void mark() { mark_ = sb.dsp_commands().size(); }
    // Commands since mark(); the music monitor's own queries left out when asked.
    strings sent(bool drop_monitor = false)
    {
        strings all = sb.dsp_commands(), out;
        for (size_t i = mark_; i < all.size(); ++i)
            if (!drop_monitor || all[i] != "dsp rec musicState\n") out.push_back(all[i]);
        return out;
    }
    strings sent_head(size_t k, bool drop_monitor)
    {
        strings all = sent(drop_monitor);
        all.resize(std::min(k, all.size()));
        return all;
    }
    void poke_pipe()
    {
        int fd = open(sb.host_path("/tmp/mcu_if_pipe").c_str(), O_WRONLY | O_NONBLOCK);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, "x", 1), 1);
        close(fd);
    }

    e2e::Sandbox sb;
    size_t mark_ = 0;
};

}  // namespace

TEST_F(MediaE2E, RecordNumberingStateFrameAndFileMoves)
{
    for (const char* f : {"index_07.wav", "index_12.wav", "tone_40.wav", "index_x.wav"})
        sb.write_file(std::string("/sdk/recorded/") + f, "x");
    sb.dsp_reply("dsp rec state", "state:2");
    sb.standin("/sdk/bin/music_file", 1);
    sb.start();
    EXPECT_EQ(next(), record_frame(0xF2, 0));

    sb.dsp_reply("dsp rec state", "state:1");
    mark();
    sb.send_frame(0x0A, {1});
    sb.send_frame(0x0A, {32});
    bytes f = next();
    ASSERT_EQ(f.size(), 16u);
    EXPECT_LE(f[7], 2);  // seconds since the start
    EXPECT_EQ(sent(), cmds("dsp rec mode 1 /sdk/recorded/index_13.wav|dsp rec state|dsp rec state"));
    EXPECT_TRUE(sb.wait_output("[MCU IF] start recording...\n", 0));

    sb.dsp_reply("dsp rec state", "state:3");
    sb.send_frame(0x0A, {2});
    sb.send_frame(0x0A, {2});
    sb.send_frame(0x0A, {0});
    EXPECT_TRUE(sb.wait_output("[MCU IF] stop recording...\n[MCU IF] not recording \n"
                               "[MCU IF] unknown record music control command\n", 3000)) << sb.output();

    sb.write_file("/sdk/recorded/index_64.wav", "x");  // the highest wraps to 1
    sb.dsp_reply("dsp rec state", "state:1");
    mark();
    sb.send_frame(0x0A, {1});
    sb.send_frame(0x0A, {32});
    EXPECT_EQ(next()[2], 0x20);
    EXPECT_EQ(sent()[0], "dsp rec mode 1 /sdk/recorded/index_01.wav\n");

    // A failed export, then a good import: the export failure stays.
    sb.dsp_reply("dsp rec state", "state:0");
    sb.send_frame(0x0A, {3});
    EXPECT_EQ(next(), record_frame(0, 0x04));
    EXPECT_EQ(next(), record_frame(0, 0x08));
    sb.standin("/sdk/bin/music_file", 0);
    sb.send_frame(0x0A, {4});
    EXPECT_EQ(next(), record_frame(0, 0x09));
    EXPECT_EQ(next(), record_frame(0, 0x08));
    EXPECT_EQ(sb.standin_calls(), (strings{"modprobe spi-slave-vmb", "music_file export", "music_file import"}));
    EXPECT_TRUE(sb.wait_output("[MCU IF] exporting .wav files failed\n[MCU IF] importing .wav files succeed\n", 0));
}

TEST_F(MediaE2E, RecordWaitsFollowTheClockOfTheQuery)
{
    sb.dsp_reply("dsp rec state", "state:1");
    sb.start();
    ASSERT_EQ(next().size(), 16u);
    // Confirmed late by the first query: the clock read before it counts.
    sb.dsp_replies("dsp rec state", {"state:3", "state:0"});
    sb.dsp_delay_ms("dsp rec state", 2200);
    sb.send_frame(0x0A, {2});
    EXPECT_TRUE(sb.wait_output("[MCU IF] stop recording...\n", 4000)) << sb.output();
    sb.dsp_delay_ms("dsp rec state", 0);
    sb.send_frame(0x0A, {1});  // never confirmed: gives up after two whole seconds
    EXPECT_TRUE(sb.wait_output("[MCU IF] failed to start record mode: 0\n", 4000)) << sb.output();
}

TEST_F(MediaE2E, AtmosRowsFailureBytesAndDtsx)
{
    start_with_reports();
    mark();
    sb.send_frame(6, bytes(11, 0));
    EXPECT_EQ(next(), audio_frame(0x02));
    EXPECT_EQ(sent(), cmds("dsp atmos 2 0|dsp atmos 8 0 0|dsp atmos 14 0|dsp atmos 8 1 0.000000|"
                           "dsp atmos 8 2 0.000000|dsp atmos 6 0|dsp atmos 4 1|dsp atmos 9 0 1|dsp atmos 9 1 0|"
                           "dsp atmos 9 2 0|dsp atmos 9 3 0|dsp atmos 9 4 0|dsp atmos 1 0|dsp atmos 3 0|"
                           "dsp atmos 10 0|dsp atmos 5 0|dsp atmos 11 0|dsp atmos 7 2 0|dsp atmos 7 1 0|"
                           "dsp atmos 7 0 0|dsp atmos 15 0|dsp vmb_Get_AudioInfo|dsp s4_ch_eng"));

    for (const char* p : {"dsp atmos 2 ", "dsp atmos 8 0 ", "dsp atmos 8 1 ", "dsp atmos 3 ", "dsp atmos 5 ",
                          "dsp atmos 15 "})
        sb.dsp_reply(p, "[refused]");
    bytes changed = {0x3F, 255, 0, 0x40, 0, 0, 0, 0, 0x70, 0x80, 7};
    mark();
    sb.send_frame(6, changed);
    EXPECT_EQ(next(), audio_frame(0x02, 0x31, 0x20));
    EXPECT_EQ(sent(), cmds("dsp atmos 2 15|dsp atmos 8 0 3|dsp atmos 8 1 2.550000|dsp atmos 9 0 2|dsp atmos 3 1|"
                           "dsp atmos 10 1|dsp atmos 5 1|dsp atmos 7 0 8|dsp atmos 15 7|dsp vmb_Get_AudioInfo|"
                           "dsp s4_ch_eng"));
    // Unchanged, then the mapped field to 3 (nothing) and to 2 (0).
    mark();
    for (uint8_t b3 : {0x40, 0xC0, 0x80}) {
        changed[3] = b3;
        sb.send_frame(6, changed);
        EXPECT_EQ(next(), audio_frame(0x02));
    }
    strings atmos;
    for (const auto& c : sent())
        if (c.starts_with("dsp atmos")) atmos.push_back(c);
    EXPECT_EQ(atmos, cmds("dsp atmos 9 0 0"));

    mark();
    sb.send_frame(11, {0, 0, 0});
    sb.send_frame(11, {0x80, 0, 0});
    sb.send_frame(11, {0x80, 255, 0x10});
    sb.send_frame(0x0A, {32});
    EXPECT_EQ(next()[2], 0x20);  // no audio report from DTS:X
    EXPECT_EQ(sent(), cmds("dsp dtsx 4 0|dsp dtsx 1 0|dsp dtsx 5 0|dsp dtsx 3 0|dsp dtsx 2 0|dsp dtsx 0 0|"
                           "dsp dtsx 2 255|dsp rec state"));
}

TEST_F(MediaE2E, PipeReportsAppliedBitsAndDialog)
{
    start_with_reports();
    sb.send_frame(5, bytes(12, 100));
    sb.send_frame(0x0A, {32});
    ASSERT_EQ(next(), record_frame(0, 0));
    poke_pipe();
    EXPECT_EQ(next(), audio_frame(0x04));
    EXPECT_EQ(next(), record_frame(0, 0));  // the first dialog value is a change
    sb.dsp_reply("dsp vmb_Get_AudioInfo", "{DTS_DIALOG_BIT:1}");
    poke_pipe();
    EXPECT_EQ(next(), audio_frame(0, 0, 0, 0));  // the thread's last rate code stays
    EXPECT_EQ(next(), record_frame(0, 0, 0x40));
    poke_pipe();
    poke_pipe();
    EXPECT_EQ(next()[2], 0x21);
    EXPECT_EQ(next()[2], 0x21);  // no change, no record frame between
}

TEST_F(MediaE2E, MusicOwnsTheSourceAndTheMonitorSeesTheEnd)
{
    sb.dsp_reply("dsp rec musicState", "musicState:1");
    start_with_reports();
    sb.send_frame(2, {0x03, 0, 0, 0});
    ASSERT_TRUE(sb.wait_dsp_command("dsp vmb_input_source 3\n", 3000));
    mark();
    sb.send_frame(9, {0x60, 5, 0xFF, 0x1F});
    EXPECT_EQ(next(), audio_frame(0x20 | 0x40));  // mix mode applied, playing
    EXPECT_EQ(sent_head(4, false),
              cmds("dsp vmb_input_source 0|dsp matrix chmap 4095|dsp rec music 1 /sdk/recorded/index_05.wav|"
                   "dsp rec musicState"));
    mark();
    sb.send_frame(9, {0x40, 6});
    EXPECT_EQ(next(), audio_frame(0x40));
    EXPECT_EQ(sent_head(2, true),
              cmds("dsp matrix unsetChmap|dsp rec music 1 /sdk/recorded/index_06.wav"));

    sb.dsp_reply("dsp rec musicState", "musicState:3");  // the file ends
    EXPECT_EQ(next(), audio_frame(0));
    mark();
    sb.send_frame(9, {0x00});
    EXPECT_EQ(next(), audio_frame(0));
    EXPECT_EQ(sent(), cmds("dsp rec music 0|dsp vmb_input_source 3|dsp vmb_Get_AudioInfo|dsp s4_ch_eng"));
    sb.send_frame(9, {0x00});
    EXPECT_EQ(next(), audio_frame(0));
    EXPECT_TRUE(sb.wait_output("[MCU IF] wrong command for current playing state: playing = 0, cmd = 00\n", 0));

    // A source that the MCU chose during the music stays at the stop.
    sb.dsp_reply("dsp rec musicState", "musicState:1");
    sb.send_frame(9, {0x40, 7});
    EXPECT_EQ(next(), audio_frame(0x40));
    sb.send_frame(2, {0x04, 0, 0, 0});
    ASSERT_TRUE(sb.wait_dsp_command("dsp vmb_input_source 4\n", 3000));
    mark();
    sb.send_frame(9, {0x00});
    EXPECT_EQ(next(), audio_frame(0x20));
    EXPECT_EQ(sent(true), cmds("dsp rec music 0|dsp vmb_Get_AudioInfo|dsp s4_ch_eng"));
}

TEST_F(MediaE2E, TonePathGainAndWaits)
{
    sb.dsp_reply("dsp alter state", "state:1");
    start_with_reports();
    sb.send_frame(9, {0x50, 1, 0, 0, 10});  // a tone is playing: one report with the bit
    EXPECT_EQ(next(), audio_frame(0x40));
    EXPECT_TRUE(sb.wait_output("[MCU IF] ignore tone request\n", 1000));

    sb.dsp_replies("dsp alter state", {"state:0", "state:1"});
    sb.dsp_reply("dsp alter alterGain", "[refused]");
    mark();
    sb.send_frame(9, {0x70, 2, 0x80, 0, 10});  // a mask that gives 0: chmap 3
    EXPECT_EQ(next(), audio_frame(0x40));
    EXPECT_EQ(sent(), cmds("dsp alter state|dsp alter alterGain 10|dsp alter /sdk/recorded/tone_02.wav mode=1 "
                           "chmap=3|dsp alter state|dsp vmb_Get_AudioInfo|dsp s4_ch_eng"));
    // The refused gain goes again; this tone never starts.
    sb.dsp_reply("dsp alter state", "state:0");
    mark();
    sb.send_frame(9, {0x70, 3, 0x01, 0x10, 10});
    EXPECT_EQ(next(), audio_frame(0));
    strings c = sent();
    ASSERT_GE(c.size(), 3u);
    EXPECT_EQ(strings(c.begin() + 1, c.begin() + 3),
              cmds("dsp alter alterGain 10|dsp alter /sdk/recorded/tone_03.wav mode=1 chmap=2049"));
    EXPECT_TRUE(sb.wait_output("[MCU IF] failed to play /sdk/recorded/tone_03.wav\n", 0));
}

TEST_F(MediaE2E, PollGateWithAllWorkersRunning)
{
    sb.dsp_reply("dsp rec musicState", "musicState:1");
    start_with_reports();
    sb.send_frame(2, {0x00, 0, 0, 0x04});  // polling on
    EXPECT_EQ(next()[2], 0x21);
    EXPECT_EQ(next()[2], 0x21);
    // Music (the monitor), the pipe, the poll and handlers on the main thread at once.
    sb.send_frame(9, {0x40, 1});
    for (uint8_t i = 0; i < 5; ++i) {
        poke_pipe();
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
}
