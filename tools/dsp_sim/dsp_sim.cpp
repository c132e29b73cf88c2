// dsp_sim: a stand-in for the DSP service on its SysV message queue.
// `dsp_sim --help` tells the options, the rules file and the log.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <optional>
#include <string>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tools/sim/port.h"
#include "tools/sim/rules.h"

namespace {

const char* const usage_text =
    "Usage: dsp_sim [--rules FILE] [--log FILE] [--ready FILE] [--create-delay-ms N]\n"
    "               [--model] [--remove-on-exit] [--verbose] [--help] [--version]\n"
    "A stand-in for the DSP service on its SysV message queue.\n\n"
    "It creates the queue (key ftok(\"/tmp\", 0x111)), takes each type-2 request\n"
    "and answers it with a type-1 reply whose text carries its terminating NUL.\n"
    "\n"
    "  --rules FILE   answers by rule (below); checked at start: a missing file\n"
    "                 or a bad line ends dsp_sim with status 2\n"
    "  --log FILE     every request, one line each (below)\n"
    "  --ready FILE   made once the queue exists\n"
    "  --create-delay-ms N   make the queue N ms late\n"
    "  --remove-on-exit      remove the queue on SIGTERM or SIGINT\n"
    "  --verbose      print each request and its answer\n"
    "\n"
    "Without --model every command gets \"[ok]\" unless a rule says otherwise.\n"
    "With --model a small state model answers the queries with plausible values:\n"
    "  \"dsp vmb_Get_AudioInfo\"  {Dolby_Atmos_Bit:..,Dolby_Surround_Bit:..,\n"
    "                           Audio_Format:..,FS:..,DTS_DIALOG_BIT:..}\n"
    "  \"dsp s4_ch_eng\"          {ENG_L:..,...,ENG_RTR:..}: a level per channel that\n"
    "                           follows the volumes set by \"dsp vol ID DB\"\n"
    "                           (0 for a channel at the floor or below -90 dB)\n"
    "  \"dsp rec state\"          rec state:N  0 idle, 1 after \"dsp rec mode 1 PATH\",\n"
    "                           3 after \"dsp rec mode 0\"\n"
    "  \"dsp rec musicState\"     rec musicState:N  1 while music started by\n"
    "                           \"dsp rec music 1 PATH\" plays (music_ms), then 2;\n"
    "                           0 after \"dsp rec music 0\"\n"
    "  \"dsp alter state\"        alter state:N  1 while a tone started by\n"
    "                           \"dsp alter PATH mode=1 ...\" plays (tone_ms), else 0\n"
    "  \"dsp s4_...\", \"dsp s2_...\"  a read-back text\n"
    "Values of the model are set in the rules file (see \"set\" below).\n"
    "\n"
    "Rules file: read again whenever it changed (new inode, size or mtime), so a\n"
    "test may rewrite it at any time (write a new file and rename it over).\n"
    "One rule per line, fields separated by a TAB; blank lines and lines starting\n"
    "with '#' are ignored:\n"
    "\n"
    "  reply  PREFIX  TEXT [TEXT ...]   answer TEXT; several texts are used in\n"
    "                                   turn, the last one then repeats\n"
    "  silent PREFIX                    never answer\n"
    "  delay  PREFIX  MS                wait MS milliseconds before answering\n"
    "  set    KEY     VALUE             a value of the model: Dolby_Atmos_Bit,\n"
    "                                   Dolby_Surround_Bit, Audio_Format, FS,\n"
    "                                   DTS_DIALOG_BIT, tone_ms, music_ms\n"
    "\n"
    "PREFIX is matched against the start of the command text (its \"\\n\"\n"
    "included, so \"dsp vol 1 \" does not match \"dsp vol 12\"). The answer (reply\n"
    "or silent) and the delay are chosen separately: for each, the rule with the\n"
    "longest matching prefix wins, and of equal prefixes the later line. No\n"
    "matching answer rule: the model's answer, else \"[ok]\". An empty prefix matches\n"
    "every command.\n"
    "PREFIX and TEXT take the escapes \\n \\r \\t \\\\ \\0 and \\xHH.\n"
    "\n"
    "Log file: one line per request in arrival order: its text without the one\n"
    "terminating NUL, escaped as in the rules file (so \"dsp vol 1 -103.500000\\n\"\n"
    "becomes dsp vol 1 -103.500000\\n); a request that does not end in exactly\n"
    "one NUL is written as \"[raw]\" and all its bytes escaped. Each line is\n"
    "flushed at once, so a script can wait for it.\n"
    "\nExamples:\n"
    "  printf 'reply\\tdsp vol 1 \\t[err]\\n' >rules; dsp_sim --rules rules --log dsp.log\n"
    "  dsp_sim --model --verbose\n"
    "Exit status: 2 for a bad command line or rules file at start, 1 when the queue fails.\n";

constexpr long REQUEST_TYPE = 2;
constexpr long RESPONSE_TYPE = 1;
constexpr size_t REPLY_MAX = 3072;  // what the daemon's msgrcv accepts
constexpr size_t RECV_MAX = 65536;  // larger than any queue allows: nothing is cut

struct options {
    std::string rules_path;
    std::string log_path;
    std::string ready_path;
    long create_delay_ms = 0;
    bool remove_on_exit = false;
    bool verbose = false;
    bool model = false;
};

struct rule {
    enum class kind { reply, silent, delay } what;
    std::string prefix;
    std::vector<std::string> texts;  // reply
    long delay_ms = 0;               // delay
    size_t line = 0;
};

class rule_book {
public:
    explicit rule_book(std::string path) : path_(std::move(path)) {}

    // Re-reads the file if it changed since the last look; bad lines are
    // reported and left out. The number of faults, or -1 if it cannot be read.
    int refresh()
    {
        if (path_.empty()) return 0;
        struct stat st {};
        if (stat(path_.c_str(), &st) != 0) {
            if (loaded_ || !tried_) fprintf(stderr, "dsp_sim: cannot read the rules %s: %s\n", path_.c_str(), strerror(errno));
            rules_.clear();
            loaded_ = false;
            tried_ = true;
            return -1;
        }
        if (!S_ISREG(st.st_mode)) {
            fprintf(stderr, "dsp_sim: cannot read the rules %s: not a regular file\n", path_.c_str());
            rules_.clear();
            loaded_ = false;
            return -1;
        }
        if (loaded_ && st.st_ino == ino_ && st.st_size == size_ &&
            st.st_mtim.tv_sec == mtime_.tv_sec && st.st_mtim.tv_nsec == mtime_.tv_nsec)
            return 0;
        FILE* f = fopen(path_.c_str(), "r");
        if (!f) {
            fprintf(stderr, "dsp_sim: cannot read the rules %s: %s\n", path_.c_str(), strerror(errno));
            return -1;
        }
        int faults = 0;
        std::vector<rule> rules;
        std::map<std::string, long> settings;
        char* buf = nullptr;
        size_t cap = 0;
        size_t lineno = 0;
        ssize_t n;
        while ((n = getline(&buf, &cap, f)) >= 0) {
            ++lineno;
            std::string line(buf, static_cast<size_t>(n));
            while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
            if (line.empty() || line[0] == '#') continue;
            std::string why = dsp_rules::problem(line);
            if (!why.empty()) {
                fprintf(stderr, "dsp_sim: %s line %zu: %s\n", path_.c_str(), lineno, why.c_str());
                ++faults;
                continue;
            }
            auto fields = dsp_rules::split_tabs(line);
            rule r{};
            r.line = lineno;
            r.prefix = fields.size() > 1 ? dsp_rules::unescape(fields[1]) : std::string();
            if (fields[0] == "reply") {
                r.what = rule::kind::reply;
                for (size_t i = 2; i < fields.size(); ++i) r.texts.push_back(dsp_rules::unescape(fields[i]));
            } else if (fields[0] == "silent") {
                r.what = rule::kind::silent;
            } else if (fields[0] == "set") {
                settings[fields[1]] = strtol(fields[2].c_str(), nullptr, 10);
                continue;
            } else {
                r.what = rule::kind::delay;
                r.delay_ms = strtol(fields[2].c_str(), nullptr, 10);
            }
            rules.push_back(std::move(r));
        }
        free(buf);
        fclose(f);
        rules_ = std::move(rules);
        settings_ = std::move(settings);
        loaded_ = true;
        ino_ = st.st_ino;
        size_ = st.st_size;
        mtime_ = st.st_mtim;
        return faults;
    }

    long setting(const std::string& key, long fallback) const
    {
        auto it = settings_.find(key);
        return it == settings_.end() ? fallback : it->second;
    }

    // The answer of a matching rule: a text, or nothing for silence; no
    // matching rule: no_rule.
    std::optional<std::string> answer(const std::string& command, bool& no_rule)
    {
        const rule* r = best(command, false);
        no_rule = !r;
        if (!r) return std::string("[ok]");
        if (r->what == rule::kind::silent) return std::nullopt;
        // A sequence advances per rule; the key survives reloads of the file.
        std::string key = r->prefix + '\t' + std::to_string(r->texts.size()) + '\t' + r->texts.front();
        size_t& used = turns_[key];
        const std::string& text = r->texts[std::min(used, r->texts.size() - 1)];
        ++used;
        return text;
    }

    long delay_ms(const std::string& command)
    {
        const rule* r = best(command, true);
        return r ? r->delay_ms : 0;
    }

private:
    const rule* best(const std::string& command, bool delay) const
    {
        const rule* found = nullptr;
        for (const rule& r : rules_) {
            if ((r.what == rule::kind::delay) != delay) continue;
            if (!command.starts_with(r.prefix)) continue;
            if (!found || r.prefix.size() >= found->prefix.size()) found = &r;
        }
        return found;
    }

    std::string path_;
    std::vector<rule> rules_;
    std::map<std::string, long> settings_;
    std::map<std::string, size_t> turns_;
    bool loaded_ = false, tried_ = false;
    ino_t ino_ = 0;
    off_t size_ = 0;
    timespec mtime_{};
};

// The DSP as far as the daemon can see it.
class dsp_model {
public:
    explicit dsp_model(const rule_book& rules) : rules_(rules) {}

    std::string answer(const std::string& c)
    {
        auto now = std::chrono::steady_clock::now();
        auto ms = [&](std::chrono::steady_clock::time_point t) {
            return std::chrono::duration_cast<std::chrono::milliseconds>(now - t).count();
        };
        long channel = 0;
        double db = 0;
        char path[256];
        if (c == "dsp vmb_Get_AudioInfo\n") {
            char text[256];
            snprintf(text, sizeof text,
                     "{Dolby_Atmos_Bit:%ld,Dolby_Surround_Bit:%ld,Audio_Format:%ld,FS:%ld,DTS_DIALOG_BIT:%ld}",
                     rules_.setting("Dolby_Atmos_Bit", 0), rules_.setting("Dolby_Surround_Bit", 0),
                     rules_.setting("Audio_Format", 1), rules_.setting("FS", 48000),
                     rules_.setting("DTS_DIALOG_BIT", 0));
            return text;
        }
        if (c == "dsp s4_ch_eng\n") return energies();
        if (c == "dsp rec state\n") return "rec state:" + std::to_string(record_state_);
        if (c == "dsp rec musicState\n") {
            int state = music_state_;
            if (state == 1 && ms(music_started_) > rules_.setting("music_ms", 5000)) state = music_state_ = 2;
            return "rec musicState:" + std::to_string(state);
        }
        if (c == "dsp alter state\n")
            return std::string("alter state:") +
                   (tone_ && ms(tone_started_) <= rules_.setting("tone_ms", 2000) ? "1" : "0");
        if (sscanf(c.c_str(), "dsp vol %ld %lf", &channel, &db) == 2) {
            volume_db_[channel] = db;
        } else if (sscanf(c.c_str(), "dsp rec mode 1 %255s", path) == 1) {
            record_state_ = 1;
        } else if (c == "dsp rec mode 0\n") {
            record_state_ = 3;
        } else if (sscanf(c.c_str(), "dsp rec music 1 %255s", path) == 1) {
            music_state_ = 1;
            music_started_ = now;
        } else if (c == "dsp rec music 0\n") {
            music_state_ = 0;
        } else if (c.starts_with("dsp alter ") && c.find(" mode=1") != std::string::npos) {
            tone_ = true;
            tone_started_ = now;
        } else if (c.starts_with("dsp s4_filter")) {
            return "filter: type=peak fc=1000 q=0.707 gain=0.0";
        } else if (c.starts_with("dsp s4_") || c.starts_with("dsp s2_")) {
            // Any other read-back query: its word and a row of settings.
            std::string word = c.substr(4, c.find_first_of(" \r\n", 4) - 4);
            return word + ": 0 0 0 0";
        }
        return "[ok]";
    }

private:
    // A level per channel: a fixed programme shape, moved by the volume.
    std::string energies() const
    {
        static const char* const keys[] = {"ENG_L",  "ENG_R",   "ENG_C",   "ENG_SUB", "ENG_LS",  "ENG_RS",
                                           "ENG_LRS", "ENG_RRS", "ENG_LTF", "ENG_RTF", "ENG_LTR", "ENG_RTR"};
        static const int shape[] = {12, 12, 11, 10, 9, 9, 7, 7, 6, 6, 5, 5};
        double sum = 0;
        for (const auto& [ch, db] : volume_db_) sum += db;
        double mean = volume_db_.empty() ? 0 : sum / static_cast<double>(volume_db_.size());
        std::string out = "{";
        for (int i = 0; i < 12; ++i) {
            long level = mean <= -90 ? 0 : std::lround(shape[i] + mean / 6);
            level = std::clamp(level, 0L, 15L);
            out += std::string(i ? "," : "") + keys[i] + ":" + std::to_string(level);
        }
        return out + "}";
    }

    const rule_book& rules_;
    std::map<long, double> volume_db_;
    int record_state_ = 0;
    int music_state_ = 0;
    std::chrono::steady_clock::time_point music_started_{};
    bool tone_ = false;
    std::chrono::steady_clock::time_point tone_started_{};
};

int queue_id = -1;
bool remove_queue = false;

void on_terminate(int)
{
    if (remove_queue && queue_id >= 0) msgctl(queue_id, IPC_RMID, nullptr);
    _exit(0);
}

// The options; false with a message for a bad one.
bool parse_args(int argc, char** argv, options& o)
{
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        const char* v = nullptr;
        if (i + 1 == argc && (a == "--rules" || a == "--log" || a == "--ready" || a == "--create-delay-ms")) {
            fprintf(stderr, "dsp_sim: %s needs an argument\n", a.c_str());
            return false;
        }
        if (a == "--rules" && (v = value())) o.rules_path = v;
        else if (a == "--log" && (v = value())) o.log_path = v;
        else if (a == "--ready" && (v = value())) o.ready_path = v;
        else if (a == "--create-delay-ms" && (v = value())) {
            if (!dsp_rules::decimal(v) || v[0] == '-') {
                fprintf(stderr, "dsp_sim: --create-delay-ms takes milliseconds, not %s\n", v);
                return false;
            }
            o.create_delay_ms = strtol(v, nullptr, 10);
        } else if (a == "--remove-on-exit") o.remove_on_exit = true;
        else if (a == "--model") o.model = true;
        else if (a == "--verbose" || a == "-v") o.verbose = true;
        else if (a == "--help" || a == "-h") {
            fputs(usage_text, stdout);
            exit(0);
        } else if (a == "--version") {
            printf("dsp_sim (tty_hub) %s\n", sim::version);
            exit(0);
        } else {
            fprintf(stderr, "dsp_sim: %s %s\n", v || a.starts_with("--") ? "unknown option" : "unexpected word", a.c_str());
            return false;
        }
    }
    return true;
}

void write_all(int fd, const char* p, size_t n)
{
    while (n) {
        ssize_t w = write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR) continue;
            perror("dsp_sim: log");
            return;
        }
        p += w;
        n -= static_cast<size_t>(w);
    }
}

struct request {
    long type;
    char text[RECV_MAX];
};

struct response {
    long type;
    char text[REPLY_MAX];
};

}  // namespace

int main(int argc, char** argv)
{
    options o;
    if (!parse_args(argc, argv, o)) {
        fputs("See dsp_sim --help.\n", stderr);
        return 2;
    }
    rule_book rules(o.rules_path);
    if (rules.refresh() != 0) return 2;
    // The ready file is made once the queue exists: its directory must be there now.
    if (!o.ready_path.empty()) {
        std::string dir = o.ready_path.find('/') == std::string::npos ? "." : o.ready_path.substr(0, o.ready_path.rfind('/') + 1);
        struct stat st {};
        if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || access(dir.c_str(), W_OK) != 0) {
            fprintf(stderr, "dsp_sim: cannot make the ready file %s: no writable directory %s\n", o.ready_path.c_str(), dir.c_str());
            return 2;
        }
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    remove_queue = o.remove_on_exit;
    signal(SIGTERM, on_terminate);
    signal(SIGINT, on_terminate);

    int log_fd = -1;
    if (!o.log_path.empty()) {
        log_fd = open(o.log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (log_fd < 0) {
            perror("dsp_sim: open log");
            return 1;
        }
    }

    if (o.create_delay_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(o.create_delay_ms));
    key_t key = ftok("/tmp", 0x111);
    queue_id = msgget(key, IPC_CREAT | 0666);
    if (queue_id < 0) {
        perror("dsp_sim: msgget");
        return 1;
    }
    if (!o.ready_path.empty()) {
        int fd = open(o.ready_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) {
            fprintf(stderr, "dsp_sim: cannot make the ready file %s: %s\n", o.ready_path.c_str(), strerror(errno));
            return 1;
        }
        close(fd);
    }
    if (o.verbose) printf("[dsp_sim] queue ready (key 0x%08x)\n", static_cast<unsigned>(key));

    dsp_model model(rules);
    static request req;
    static response rsp;
    for (;;) {
        ssize_t n = msgrcv(queue_id, &req, sizeof req.text, REQUEST_TYPE, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            perror("dsp_sim: msgrcv");
            return 1;
        }
        size_t len = static_cast<size_t>(n);
        if (log_fd >= 0) {
            bool one_nul = len > 0 && req.text[len - 1] == '\0' && (len == 1 || req.text[len - 2] != '\0');
            std::string rec = one_nul ? dsp_rules::escape(std::string(req.text, len - 1))
                                      : "[raw]" + dsp_rules::escape(std::string(req.text, len));
            rec += '\n';
            write_all(log_fd, rec.data(), rec.size());
        }
        // Rules see the text up to its first NUL, as the service would.
        std::string command(req.text, strnlen(req.text, len));
        rules.refresh();
        long delay = rules.delay_ms(command);
        bool no_rule = false;
        std::optional<std::string> answer = rules.answer(command, no_rule);
        if (no_rule && o.model) answer = model.answer(command);
        if (o.verbose)
            printf("[dsp_sim] <- %s   -> %s\n", dsp_rules::escape(command).c_str(),
                   answer ? dsp_rules::escape(*answer).c_str() : "(silent)");
        if (!answer) continue;
        if (delay > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delay));
        size_t alen = std::min(answer->size(), REPLY_MAX - 1);
        memcpy(rsp.text, answer->data(), alen);
        rsp.text[alen] = '\0';
        rsp.type = RESPONSE_TYPE;
        while (msgsnd(queue_id, &rsp, alen + 1, 0) < 0) {
            if (errno == EINTR) continue;
            perror("dsp_sim: msgsnd");
            break;
        }
    }
}
