// Settings frames (commands 2, 3, 4, 5, 8) against the DSP service stand-in:
// exact command texts per frame, register writes through devmem, GPIO lines.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/e2e/harness.h"

using e2e::bytes;
using V = std::vector<std::string>;

namespace {

constexpr const char* MARK = "[MCU IF] Wrong checksum, data may be corrupted\n";
const std::string REG_READ = "devmem 0x9c0032e4";
std::string reg_write(unsigned v) { return REG_READ + " 32 " + std::to_string(v); }

size_t count(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// A running daemon on /dev/ttyS1 whose frames are followed by a bad-checksum
// marker: once the marker's message is out, the frame before it is done.
struct Link {
    e2e::Sandbox sb{"/dev/ttyS1"};
    size_t seen = 0, marks = 0, calls = 0;

    Link()
    {
        // A register that reads back what was written, as the platform's devmem does.
        std::string devmem = sb.host_path("/.sb/usr/bin/devmem");
        sb.write_file("/.sb/usr/bin/devmem",
                      "#!/bin/sh\nprintf '%s\\n' \"devmem $*\" >>/.sb/standin.log\n"
                      "if [ $# -ge 3 ]; then printf '0x%08X\\n' \"$3\" >/.sb/reg; "
                      "else cat /.sb/reg 2>/dev/null || echo 0x00000000; fi\n");
        std::filesystem::permissions(devmem, std::filesystem::perms::all);
        sb.start();
        EXPECT_TRUE(sb.wait_dsp_command("dsp rec state\n", 5000)) << sb.output();
        seen = sb.dsp_commands().size();
        calls = sb.standin_calls().size();  // the OTA listener's modprobe
    }

    ~Link()
    {
        // Sanitizer builds report on the daemon's stderr.
        std::string err = sb.errors();
        EXPECT_EQ(err.find("Sanitizer"), std::string::npos) << err;
        EXPECT_EQ(err.find("runtime error"), std::string::npos) << err;
    }

    // DSP commands since the last call, without those of status reports.
    V fresh()
    {
        V all = sb.dsp_commands(), out;
        for (size_t i = seen; i < all.size(); ++i)
            if (all[i] != "dsp vmb_Get_AudioInfo\n" && all[i] != "dsp s4_ch_eng\n") out.push_back(all[i]);
        seen = all.size();
        return out;
    }
    V fresh_calls()
    {
        V all = sb.standin_calls();
        V out(all.begin() + static_cast<long>(std::min(calls, all.size())), all.end());
        calls = all.size();
        return out;
    }

    V step(uint8_t cmd, const bytes& payload)
    {
        sb.send_frame(cmd, payload);
        return sync();
    }
    V sync()
    {
        bytes bad = e2e::mcu_frame(0x0A, {0x20});
        bad.back() ^= 1;
        sb.send(bad);
        ++marks;
        for (int i = 0; i < 600 && count(sb.output(), MARK) < marks; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_EQ(count(sb.output(), MARK), marks) << sb.output();
        return fresh();
    }

    // applied_mask as the next pipe-driven report carries it.
    int reported_mask()
    {
        int fd = open(sb.host_path("/tmp/mcu_if_pipe").c_str(), O_WRONLY | O_NONBLOCK);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(write(fd, "x", 1), 1);
        close(fd);
        bytes f = sb.read_mcu_frame_cmd(0x21, 3000);
        return f.size() == 16 ? f[5] & 0x3F : -1;
    }
};

V vols(const std::string& db)
{
    V out;
    for (int ch : {1, 2, 5, 6, 3, 4, 7, 8, 9, 10, 11, 12}) out.push_back("dsp vol " + std::to_string(ch) + " " + db + "\n");
    return out;
}

V operator+(V a, const V& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The three format commands of one direction, "dsp i2sout delay 1\n" etc.
V i2s_format(const std::string& dir, int delay, int justify, int parity)
{
    return {"dsp " + dir + " delay " + std::to_string(delay) + "\n", "dsp " + dir + " justify " + std::to_string(justify) + "\n",
            "dsp " + dir + " parity " + std::to_string(parity) + "\n"};
}

}  // namespace

TEST(Settings, VolumeDelayAndBassManagement)
{
    Link l;
    EXPECT_EQ(l.step(5, bytes(12, 0)), vols("-103.500000"));
    EXPECT_EQ(l.step(5, bytes(12, 0)), V{});
    EXPECT_EQ(l.step(5, {0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 255}),
              (V{"dsp vol 5 -49.500000\n", "dsp vol 12 77.500000\n"}));
    // A refused value is stored: the same frame again sends nothing.
    l.sb.dsp_reply("dsp vol 1 ", "[err]");
    EXPECT_EQ(l.step(5, {100, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 255}), V{"dsp vol 1 0.000000\n"});
    EXPECT_NE(l.sb.output().find("[MCU IF] command failed\n"), std::string::npos);
    EXPECT_EQ(l.step(5, {100, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 255}), V{});
    l.sb.dsp_clear_rules();

    V delays;
    for (int ch : {0, 1, 4, 5, 2, 3, 6, 7, 8, 9, 10, 11}) delays.push_back("dsp delay " + std::to_string(ch) + " 0\n");
    delays.push_back("dsp delay 16 1\n");
    EXPECT_EQ(l.step(4, bytes(12, 0)), delays);
    EXPECT_EQ(l.step(4, bytes(12, 0)), V{"dsp delay 16 1\n"});
    EXPECT_EQ(l.step(4, {0, 0, 0, 0, 255}), (V{"dsp delay 2 255\n", "dsp delay 16 1\n"}));  // short: the rest reads as 0

    bytes bm(16, 0);
    bm[0] = 21;  // truncated gain 8
    bm[15] = 255;
    V first{"dsp bm 0 10 8\n", "dsp bm 0 11 8\n", "dsp bm 0 14 100\n", "dsp bm 0 15 100\n"};
    for (int t : {12, 13, 16, 17, 18, 19, 20, 21, 26, 27, 28, 29}) first.push_back("dsp bm 0 " + std::to_string(t) + " 100\n");
    for (int t : {0, 1, 4, 5, 2, 3, 6, 7, 8, 9}) first.push_back("dsp bm 0 1 1 0 " + std::to_string(t) + "\n");
    first.insert(first.end(), {"dsp bm 0 1 1 510 10\n", "dsp bm 0 1 1 510 11\n"});
    EXPECT_EQ(l.step(8, bm), first);
    EXPECT_EQ(l.step(8, bm), V{});
    bm[1] = 255;
    bm[3] = 30;
    bm[12] = 7;
    EXPECT_EQ(l.step(8, bm), (V{"dsp bm 0 14 0\n", "dsp bm 0 12 0\n", "dsp bm 0 13 0\n",
                                "dsp bm 0 1 1 14 2\n", "dsp bm 0 1 1 14 3\n"}));

    EXPECT_EQ(l.reported_mask(), 0x0D);
    l.step(5, {100, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 255});  // unchanged still counts as applied
    EXPECT_EQ(l.reported_mask(), 0x04);
}

TEST(Settings, SystemControlWord)
{
    Link l;
    EXPECT_EQ(l.step(3, {0, 0, 0, 0}), (V{"dsp vmb_slave_info 0 0\n", "dsp vol 17 0\n", "dsp a_mute 1\n"}));
    EXPECT_EQ(l.step(3, {0, 0, 0, 0}), V{});
    EXPECT_EQ(l.reported_mask(), 0x10);
    EXPECT_EQ(l.step(3, {0x40, 0, 0, 0x7F}), (V{"dsp src param hbr 2\n", "dsp vol 17 1890\n", "dsp a_mute 0\n"}));
    EXPECT_EQ(l.step(3, {0x7F, 0, 0, 0xFF}), V{"dsp src param hbr 1\n"});  // bit 7 of byte 3 ignored
    EXPECT_EQ(l.step(3, {0x60, 0, 0, 0xFF}), V{});                         // low bits of byte 0 ignored
    l.sb.dsp_reply("dsp a_mute", "busy");
    EXPECT_EQ(l.step(3, {0x60, 0, 0, 0xFE}), V{"dsp a_mute 1\n"});
    EXPECT_EQ(l.step(3, {0x60, 0, 0, 0xFE}), V{});

    // Forced silence and the output lines.
    l.step(5, {100, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(l.step(3, {0x60, 0x44, 0, 0xFE}), vols("-103.500000"));
    EXPECT_EQ(l.sb.read_file("/sys/class/gpio/P5_02/value"), std::string("1\0", 2));
    EXPECT_EQ(l.sb.read_file("/sys/class/gpio/P5_03/value"), std::string("0\0", 2));
    EXPECT_EQ(l.step(5, {100, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), V{"dsp vol 2 -49.000000\n"});
    V restored = vols("-103.500000");
    restored[0] = "dsp vol 1 0.000000\n";
    restored[1] = "dsp vol 2 -49.000000\n";
    EXPECT_EQ(l.step(3, {0x60, 0x08, 0, 0xFE}), restored);
    EXPECT_EQ(l.sb.read_file("/sys/class/gpio/P5_02/value"), std::string("0\0", 2));
    EXPECT_EQ(l.sb.read_file("/sys/class/gpio/P5_03/value"), std::string("1\0", 2));
    EXPECT_EQ(l.step(3, {0x60, 0xA8, 0, 0xFE}), V{});

    // Mode words: one seen flag over a cache that starts at zero.
    auto mode = [&](uint8_t w) { return l.step(3, {0x60, 0xA8, w, 0xFE}); };
    EXPECT_EQ(mode(0x70), V{"dsp mode 2 0\n"});
    EXPECT_EQ(mode(0x11), V{"dsp mode 6 1\n"});
    EXPECT_EQ(mode(0x20), V{});
    EXPECT_EQ(mode(0x25), V{"dsp mode 7 5\n"});
    EXPECT_EQ(mode(0xE3), (V{"dsp mode 1 3\n", "dsp mode 4 3\n", "dsp mode 5 3\n"}));
    size_t logs = count(l.sb.output(), "[MCU IF] Morva5 : setting DSP_app_mode\n");
    EXPECT_EQ(mode(0xE6), V{});
    EXPECT_EQ(count(l.sb.output(), "[MCU IF] DSP_app_mode e6\n"), 1u);
    EXPECT_EQ(count(l.sb.output(), "[MCU IF] Morva5 : setting DSP_app_mode\n"), logs + 1);
    EXPECT_EQ(mode(0x05), V{});
    EXPECT_EQ(count(l.sb.output(), "DSP_app_mode 5\n"), 0u);

    // Source 6 uses up the hbr select without a command.
    l.step(2, {0x16, 0, 0, 0});
    EXPECT_EQ(l.step(3, {0x80, 0xA8, 0x05, 0xFE}), V{});
    l.step(2, {0x11, 0, 0, 0});
    EXPECT_EQ(l.step(3, {0x80, 0xA8, 0x05, 0xFE}), V{});
    EXPECT_EQ(l.step(3, {0x00, 0xA8, 0x05, 0xFE}), V{"dsp vmb_slave_info 0 0\n"});
}

TEST(Settings, SourceMixModeAndI2sWord)
{
    Link l;
    EXPECT_EQ(l.step(2, {0x11, 0x02, 0x04, 0xF3}), (V{"dsp vmb_input_source 1\n", "dsp vmb_2ch_audio_mode 0\n",
                                                    "dsp dec_out 4\n", "dsp upmix 2\n", "dsp smp 0\n"}));
    EXPECT_EQ(l.fresh_calls(), (V{REG_READ, reg_write(0x100), REG_READ, reg_write(0x200100)}));
    EXPECT_NE(l.sb.output().find("[MCU IF] Wrong I2S out sample rate\n"), std::string::npos);
    EXPECT_EQ(l.reported_mask(), 0x20);
    EXPECT_EQ(l.step(2, {0x11, 0x02, 0x04, 0xF3}), V{});
    EXPECT_EQ(l.fresh_calls(), V{});
    EXPECT_EQ(l.reported_mask(), 0x20);

    // Sources. The reply to source 2 is held back: its register write must be done by then.
    l.sb.dsp_delay_ms("dsp vmb_input_source", 400);
    l.sb.send_frame(2, {0x12, 0x02, 0x04, 0xF3});
    ASSERT_TRUE(l.sb.wait_dsp_command("dsp vmb_input_source 2\n", 3000));
    EXPECT_EQ(l.fresh_calls(), (V{REG_READ, reg_write(0x200000)}));
    l.sb.dsp_clear_rules();
    EXPECT_EQ(l.sync(), V{"dsp vmb_input_source 2\n"});
    EXPECT_EQ(l.step(2, {0x1C, 0x02, 0x04, 0xF3}), V{"dsp vmb_input_source 0\n"});
    EXPECT_EQ(l.step(2, {0x10, 0x02, 0x04, 0xF3}), V{"dsp vmb_input_source 0\n"});
    EXPECT_EQ(l.step(2, {0x16, 0x02, 0x04, 0xF3}), V{"dsp vmb_input_source 6\n"});
    EXPECT_EQ(l.step(2, {0x15, 0x02, 0x04, 0xF3}), V{});
    EXPECT_NE(l.sb.output().find("[MCU IF] set_dsp_input_src unknown source id 5\n"), std::string::npos);
    EXPECT_EQ(l.fresh_calls(), V{});

    // Mix modes; the decoded format joins in through the pipe.
    EXPECT_EQ(l.step(2, {0x26, 0x02, 0x04, 0xF3}), V{"dsp vmb_2ch_audio_mode 1\n"});
    EXPECT_EQ(l.step(2, {0x66, 0x02, 0x04, 0xF3}), V{});
    EXPECT_NE(l.sb.output().find("[MCU IF] set_mix_mode unknown channel mix mode 6\n"), std::string::npos);
    EXPECT_EQ(l.step(2, {0x26, 0x02, 0x04, 0xF3}), V{});
    l.sb.dsp_reply("dsp vmb_Get_AudioInfo", "{Audio_Format:1,FS:48000}");
    l.reported_mask();
    EXPECT_EQ(l.fresh(), V{"dsp mode 6 0\n"});
    EXPECT_EQ(l.step(2, {0xA6, 0x02, 0x04, 0xF3}), (V{"dsp mode 6 8\n", "dsp vmb_2ch_audio_mode 1\n"}));

    // Decoder output and upmix words; a refused upmix is stored.
    l.sb.dsp_reply("dsp upmix", "[no]");
    EXPECT_EQ(l.step(2, {0xA6, 0x80, 0x06, 0xF3}), (V{"dsp dec_out 0\n", "dsp upmix 6\n"}));
    EXPECT_EQ(l.step(2, {0xA6, 0x00, 0x06, 0xF3}), V{"dsp dec_out 0\n"});
    EXPECT_EQ(l.step(2, {0xA6, 0xFF, 0x06, 0xF3}), V{"dsp dec_out 127\n"});

    // I2S word and the poll gate.
    auto i2s = [&](uint8_t w) { return l.step(2, {0xA6, 0xFF, 0x06, w}); };
    EXPECT_EQ(i2s(0x00), V{"dsp smp 48000\n"} + i2s_format("i2sout", 1, 0, 0) + i2s_format("i2sin", 1, 0, 0));
    EXPECT_EQ(i2s(0x03), V{});
    EXPECT_EQ(i2s(0x92), V{"dsp smp 96000\n"} + i2s_format("i2sout", 0, 0, 1) + i2s_format("i2sin", 0, 1, 1));
    EXPECT_EQ(i2s(0x61), V{"dsp smp 44100\n"} + i2s_format("i2sout", 0, 1, 1) + i2s_format("i2sin", 0, 0, 1));
    EXPECT_EQ(i2s(0x22), V{"dsp smp 48000\n"} + i2s_format("i2sin", 0, 1, 1));
    std::string set21 = reg_write(0x200000);
    V five_sets;
    for (int i = 0; i < 5; ++i) five_sets = five_sets + V{REG_READ, set21};
    EXPECT_EQ(l.fresh_calls(), five_sets);
    EXPECT_TRUE(l.sb.drain(300).empty());  // no polling yet

    EXPECT_EQ(i2s(0x26), V{});
    EXPECT_FALSE(l.sb.read_mcu_frame_cmd(0x21, 1000).empty());
    EXPECT_FALSE(l.sb.read_mcu_frame_cmd(0x21, 1000).empty());
    EXPECT_EQ(i2s(0x2E), V{});
    EXPECT_FALSE(l.sb.read_mcu_frame_cmd(0x21, 1000).empty());  // still polling
    EXPECT_EQ(i2s(0x2A), V{});
    l.sb.drain(100);
    EXPECT_TRUE(l.sb.read_mcu_frame_cmd(0x21, 600).empty());
    EXPECT_EQ(l.fresh_calls(), (V{REG_READ, set21, REG_READ, reg_write(0), REG_READ, reg_write(0)}));
}
