// End-to-end harness: the real tty_hub in private mount, IPC and PID
// namespaces, chrooted into a sandbox root under the build tree, with the
// pseudo-terminal bound at /dev/ttyS1 or /dev/ttyS2, the DSP service stand-in
// dsp_sim on a real SysV queue, and stand-in programs that record their calls.
//
// The sandbox dies with the thread that called start() (so a killed test
// process leaves nothing running): start it on the test's own thread.
//
// Paths given to the file helpers are paths as seen inside the sandbox
// ("/tmp/mcu_if_pipe"); host_path() gives the host's view of them.
#pragma once
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace e2e {

using bytes = std::vector<uint8_t>;

// A whole MCU frame: FF, L, command, payload, check digit.
bytes mcu_frame(uint8_t command, const bytes& payload);
// The check digit over the length byte, command and payload.
uint8_t mcu_check(const uint8_t* from, size_t n);
// Payload of a whole frame (empty if the frame is too short).
bytes frame_payload(const bytes& frame);
// "FF 04 0A 01 3F"
std::string hex(const bytes& b);
bytes to_bytes(const std::string& s);

class Sandbox {
public:
    explicit Sandbox(std::string port = "/dev/ttyS1");
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    // --- DSP service stand-in (rules take effect at once, also while running)
    void dsp_reply(const std::string& prefix, const std::string& text);
    // Successive answers; the last one then repeats.
    void dsp_replies(const std::string& prefix, const std::vector<std::string>& texts);
    void dsp_silent(const std::string& prefix);
    void dsp_delay_ms(const std::string& prefix, long ms);
    void dsp_clear_rules();
    // Before start(): the queue is created this late; negative: never.
    void dsp_start_delay_ms(long ms);
    void no_dsp() { dsp_start_delay_ms(-1); }
    bool wait_dsp_commands(size_t n, int timeout_ms);
    // True once a command equal to text (with its "\n") has arrived.
    bool wait_dsp_command(const std::string& text, int timeout_ms);
    // Texts as received without their terminating NUL. A message that did
    // not end in exactly one NUL is returned whole behind "[raw]", so that
    // it compares unequal to any proper command.
    std::vector<std::string> dsp_commands() const;
    // Exactly the bytes each message carried.
    std::vector<std::string> dsp_raw_commands() const;

    // --- stand-in programs ("name args" per call, in order)
    void standin(const std::string& path, int status);
    std::vector<std::string> standin_calls() const;
    bool wait_standin_calls(size_t n, int timeout_ms);
    // Before start(): make /sys/class/gpio/export and unexport record every
    // write in order (FIFOs drained into gpio_writes("export")), instead of
    // plain files that keep only the last write.
    void record_gpio_exports();
    std::string gpio_writes(const std::string& file) const;

    // --- files
    std::string host_path(const std::string& path) const;
    void write_file(const std::string& path, const std::string& content);
    std::string read_file(const std::string& path) const;
    bool exists(const std::string& path) const;
    void remove(const std::string& path);
    void make_fifo(const std::string& path);

    // --- terminals: a further pty bound at /dev/NAME (before start()).
    // Returns its master descriptor, owned by the sandbox.
    int add_tty(const std::string& dev_path);
    int master_fd() const { return master_; }
    // The test's own descriptor of the port's terminal: tcgetattr on it
    // shows the settings the daemon made.
    int slave_fd() const { return slave_; }
    const std::string& port() const { return port_; }

    // --- the daemon
    // tty_hub -p <port> followed by extra.
    void start(const std::vector<std::string>& extra = {});
    // tty_hub with exactly these arguments.
    void start_exact(const std::vector<std::string>& args);
    bool started() const { return launcher_ > 0; }
    // Before start(): standard error goes into output() too, in the order
    // written, and errors() stays empty.
    void merge_streams() { merge_streams_ = true; }
    // Exit status of tty_hub (128 + signal if killed), -1 while it runs.
    int wait_exit(int timeout_ms);
    bool wait_output(const std::string& text, int timeout_ms);
    std::string output() const;
    std::string errors() const;
    // Seconds since tty_hub was launched.
    double elapsed() const;

    // --- the port (pty master)
    void send(const bytes& b);
    void send(const std::string& s);
    void send_frame(uint8_t command, const bytes& payload) { send(mcu_frame(command, payload)); }
    // Exactly n bytes, or fewer when the time runs out.
    bytes read_bytes(size_t n, int timeout_ms);
    // Everything that arrives within timeout_ms.
    bytes drain(int timeout_ms);
    // The next whole frame (from FF on), or empty on time-out; bytes ahead of
    // the lead byte are dropped and counted in skipped_bytes().
    bytes read_mcu_frame(int timeout_ms);
    // The next whole frame with this command; other frames are passed over.
    bytes read_mcu_frame_cmd(uint8_t command, int timeout_ms);
    size_t skipped_bytes() const { return skipped_; }

    const std::string& root() const { return root_; }

    // --- faults
    // Host pid of the running process inside the sandbox whose argv[0] is
    // exe, or -1; daemon_pid() and dsp_pid() name the two of interest.
    pid_t pid_of(const std::string& exe) const;
    pid_t daemon_pid() const;
    pid_t dsp_pid() const;
    // Removes the DSP service's queue (ipcrm inside the sandbox's IPC namespace).
    void remove_dsp_queue();
    // Before start(): DIR becomes a tmpfs of that many bytes inside the
    // sandbox, holding what DIR held. The host sees no such mount: reach
    // its files through live_path().
    void limit_dir(const std::string& dir, size_t bytes);
    // A path as the running sandbox sees it (through its mount namespace).
    std::string live_path(const std::string& path) const;

private:
    void launch(const std::vector<std::string>& args);
    void write_rules();
    bool fill(int deadline_ms_left);
    int open_pty(std::string& slave_path, int& slave_fd);
    void shutdown();

    std::string port_;
    std::string root_;
    int master_ = -1;
    int slave_ = -1;
    std::string slave_path_;
    std::vector<std::pair<std::string, std::pair<int, int>>> extra_ttys_;  // name, master, slave
    std::vector<std::string> extra_tty_paths_;
    std::vector<std::string> tmpfs_;  // "DIR:BYTES"
    long dsp_delay_ms_ = 0;
    bool gpio_fifos_ = false;
    bool merge_streams_ = false;
    std::map<std::pair<int, std::string>, std::string> rules_;  // (kind, prefix) -> line
    pid_t launcher_ = -1;
    pid_t init_pid_ = -1;  // host pid of the namespace's init
    std::chrono::steady_clock::time_point launched_at_{};
    bytes pending_;
    size_t skipped_ = 0;
};

}  // namespace e2e
