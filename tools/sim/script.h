// The script machinery of the peer simulators: words with quotes and escapes,
// a whole script compiled and range-checked into steps before anything is
// sent, the steps both simulators share (expectations over the daemon's log,
// the DSP stand-in's report and the stand-in log; timeout, ignore, sh, rule),
// and the common command line.
#pragma once
#include <functional>
#include <optional>
#include <sys/wait.h>

#include "tools/sim/rules.h"
#include "tools/sim/port.h"

#ifndef TTY_HUB_VERSION
#define TTY_HUB_VERSION "1.0"
#endif

namespace sim {

// ---- words: blanks separate; "..." holds blanks; \n \r \t \\ \" \0 \xHH
// anywhere; a word that starts with # ends the line.
struct word_list {
    std::vector<std::string> w;
    std::vector<size_t> end;    // where each word ends in the line
    std::vector<bool> quoted;  // held quotes: text, never a number
};

inline word_list split(const std::string& line)
{
    word_list out;
    size_t i = 0;
    for (;;) {
        while (i < line.size() && isspace(static_cast<unsigned char>(line[i]))) ++i;
        if (i == line.size() || line[i] == '#') return out;
        std::string w;
        bool quoted = false, had_quotes = false;
        for (; i < line.size() && (quoted || !isspace(static_cast<unsigned char>(line[i]))); ++i) {
            char c = line[i];
            if (c == '"') {
                quoted = !quoted;
                had_quotes = true;
                continue;
            }
            if (c != '\\') {
                w += c;
                continue;
            }
            if (++i == line.size()) throw usage_error("a \\ ends the line");
            switch (line[i]) {
            case 'n': w += '\n'; break;
            case 'r': w += '\r'; break;
            case 't': w += '\t'; break;
            case '0': w += '\0'; break;
            case '\\':
            case '"': w += line[i]; break;
            case 'x':
                if (i + 2 < line.size() && isxdigit(static_cast<unsigned char>(line[i + 1])) &&
                    isxdigit(static_cast<unsigned char>(line[i + 2]))) {
                    w += static_cast<char>(std::stoi(line.substr(i + 1, 2), nullptr, 16));
                    i += 2;
                    break;
                }
                throw usage_error("\\x needs two hex digits");
            default: throw usage_error(std::string("unknown escape \\") + line[i]);
            }
        }
        if (quoted) throw usage_error("a quote is not closed");
        out.w.push_back(w);
        out.end.push_back(i);
        out.quoted.push_back(had_quotes);
    }
}

// Text for a message: escaped, in quotes.
inline std::string quote(std::string_view s) { return "\"" + dsp_rules::escape(std::string(s)) + "\""; }

// ---- steps

struct args {
    std::vector<std::string> w;  // the words after the verb
    std::vector<bool> quoted;
    std::string rest;            // the raw text after the verb
    size_t size() const { return w.size(); }
    const std::string& operator[](size_t i) const { return w.at(i); }
    long num(size_t i, long lo, long hi, const std::string& what) const { return number(w.at(i), lo, hi, what); }
};

using action = std::function<bool()>;

struct verb {
    std::string name;  // one word, or two ("expect dsp")
    std::string usage;
    size_t min, max;   // number of arguments
    std::function<action(const args&)> compile;
};

struct step {
    std::string where;  // "line 12" or "argument 3"
    action run;
};

inline std::string where;  // of the step that runs
inline bool quiet = false;
inline int bound_ms = 10000;
inline std::vector<std::string> ignored_dsp;
inline std::vector<int> ignored_frames;

// Options the test runner gives: the daemon's log, the DSP stand-in's report
// and rules, the stand-in programs' log, the daemon's exit status.
struct files {
    std::string log, dsp_log, dsp_rules, calls, exit;
};
inline files paths;

inline bool miss(const std::string& what)
{
    fflush(stdout);
    fprintf(stderr, "%s %s: %s\n", tag, where.c_str(), what.c_str());
    return false;
}

inline void say(const std::string& what)
{
    if (!quiet) printf("%s %s\n", tag, what.c_str());
}

// Whether a step that needs the option can run; else it is reported skipped.
inline bool have(const std::string& path, const char* step, const char* option)
{
    if (path.empty()) printf("%s %s: %s skipped (no %s)\n", tag, where.c_str(), step, option);
    return !path.empty();
}

// Polls ready() until it holds or the bound passes, reading the port meanwhile
// so that a daemon that sends reports never blocks on a full line.
template <class F>
bool wait_for(F ready, int ms = bound_ms)
{
    auto deadline = steady::now() + std::chrono::milliseconds(ms);
    for (;;) {
        if (ready()) return true;
        int left = ms_left(deadline);
        if (left == 0) return ready();
        fill(std::min(left, 10));
    }
}

// A file that grows while it is read: whole lines only.
struct follower {
    explicit follower(const std::string* p) : path(p) {}
    const std::string* path;
    int fd = -1;
    std::string buf;

    std::optional<std::string> next()
    {
        if (fd < 0 && (fd = open(path->c_str(), O_RDONLY | O_CLOEXEC)) < 0) return std::nullopt;
        char chunk[4096];
        ssize_t n;
        while ((n = read(fd, chunk, sizeof chunk)) > 0) buf.append(chunk, static_cast<size_t>(n));
        size_t nl = buf.find('\n');
        if (nl == std::string::npos) return std::nullopt;
        std::string line = buf.substr(0, nl);
        buf.erase(0, nl + 1);
        return line;
    }
};
inline follower log_lines{&paths.log}, dsp_lines{&paths.dsp_log}, call_lines{&paths.calls};

enum class verdict { match, skip, wrong };

// Waits for the line that judge() takes; the first wrong one, or none, fails.
inline bool expect_line(follower& f, const std::string& what, const std::function<verdict(const std::string&)>& judge,
                        bool escaped = false)
{
    std::optional<std::string> wrong;
    bool found = false;
    wait_for([&] {
        while (auto line = f.next()) {
            verdict v = judge(*line);
            if (v == verdict::skip) continue;
            if (v == verdict::wrong) wrong = line;
            found = v == verdict::match;
            return true;
        }
        return false;
    });
    if (found) {
        say("seen " + what);
        return true;
    }
    if (wrong) return miss("expected " + what + ", got " + (escaped ? "\"" + *wrong + "\"" : quote(*wrong)));
    return miss("expected " + what + ", nothing within " + std::to_string(bound_ms) + " ms");
}

inline std::string read_file(const std::string& path, bool& exists)
{
    std::string out;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    exists = fd >= 0;
    if (fd < 0) return out;
    char chunk[4096];
    ssize_t n;
    while ((n = read(fd, chunk, sizeof chunk)) > 0) out.append(chunk, static_cast<size_t>(n));
    close(fd);
    return out;
}

inline bool run_shell(const std::string& command)
{
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    if (pid < 0) return miss(std::string("fork: ") + strerror(errno));
    int status = 0;
    for (pid_t r; (r = waitpid(pid, &status, WNOHANG)) <= 0;) {
        if (r < 0 && errno != EINTR) return miss(std::string("waitpid: ") + strerror(errno));
        fill(10);
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
    return miss("sh " + quote(command) + " ended with status " +
                std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)));
}

// A rules line as the DSP stand-in reads it; checked here, so that a script
// with a rule the stand-in would refuse never starts.
inline std::string rules_line(const args& a)
{
    std::string line = a[0];
    for (size_t i = 1; i < a.size(); ++i) line.append("\t").append(dsp_rules::escape(a[i]));
    std::string why = dsp_rules::problem(line);
    if (!why.empty()) throw usage_error("rule: " + why);
    return line + "\n";
}

// Bytes from words: numbers 0..255, "quoted text" as its bytes, @FILE as the
// file's bytes (read when the step runs, so an earlier step may make it).
inline std::function<bytes()> byte_list(const args& a, size_t from)
{
    std::vector<std::pair<bytes, std::string>> parts;
    for (size_t i = from; i < a.size(); ++i) {
        if (a.quoted[i]) parts.push_back({bytes(a[i].begin(), a[i].end()), ""});
        else if (a[i].starts_with("@")) parts.push_back({{}, a[i].substr(1)});
        else parts.push_back({{static_cast<uint8_t>(a.num(i, 0, 255, "byte"))}, ""});
    }
    return [parts] {
        bytes out;
        for (const auto& [b, file] : parts) {
            bool exists = false;
            std::string text = file.empty() ? std::string() : read_file(file, exists);
            if (!file.empty() && !exists) throw std::runtime_error("cannot read " + file);
            out.insert(out.end(), b.begin(), b.end());
            out.insert(out.end(), text.begin(), text.end());
        }
        return out;
    };
}

inline void skip_lines(follower& f)
{
    while (f.next()) {
    }
}

// Parts of the usage that both simulators print.
inline const std::string common_options_help = R"(  --port DEV        a terminal (a board's port); line settings as the daemon's:
  -b RATE -P odd|even|mark|space -B (two stop bits) -c (RTS/CTS); default 115200 8N1
  --pty FILE        make a pseudo-terminal, write its slave's path to FILE
  -f SCRIPT         steps from SCRIPT ('-': standard input); '#' starts a comment,
                    lines starting with '@' are for the test runner
  --log FILE --dsp-log FILE --dsp-rules FILE --calls FILE --exit FILE
                    the daemon's log, the DSP stand-in's report and rules, the
                    stand-in log, the daemon's exit status; without one, the steps
                    that need it are reported skipped and pass
)";
inline const std::string script_help = R"(Words are separated by blanks; "..." is one word; \n \r \t \\ \" \0 \xHH escape.
Numbers are decimal or 0x hex. The whole script is checked before anything is
sent. Without steps and with a terminal on standard input: interactive.
)";
inline const std::string exit_help = R"(Exit status: 0; 1 at the first failed step; 2 for a bad command line or script
(nothing sent) or a port that cannot be set up.
)";

// The steps both simulators know.
inline std::vector<verb> common_verbs()
{
    return {
        {"expect dsp", "TEXT...       the next DSP commands the daemon sent are exactly these, in order", 1, SIZE_MAX,
         [](const args& a) -> action {
             std::vector<std::string> wants;
             for (const auto& w : a.w) wants.push_back(dsp_rules::escape(w));
             return [wants] {
                 if (!have(paths.dsp_log, "expect dsp", "--dsp-log")) return true;
                 for (const auto& want : wants) {
                     bool ok = expect_line(dsp_lines, "dsp \"" + want + "\"", [&](const std::string& l) {
                         if (l == want) return verdict::match;
                         std::string text = dsp_rules::unescape(l);
                         for (const auto& p : ignored_dsp)
                             if (text.starts_with(p)) return verdict::skip;
                         return verdict::wrong;
                     }, true);
                     if (!ok) return false;
                 }
                 return true;
             };
         }},
        {"expect log", "TEXT          a line of the daemon's log from here on contains TEXT", 1, 1,
         [](const args& a) -> action {
             return [want = a[0]] {
                 if (!have(paths.log, "expect log", "--log")) return true;
                 return expect_line(log_lines, "log " + quote(want), [&](const std::string& l) {
                     return l.find(want) != std::string::npos ? verdict::match : verdict::skip;
                 });
             };
         }},
        {"expect call", "TEXT         the next line of the stand-in log is exactly TEXT", 1, 1,
         [](const args& a) -> action {
             return [want = a[0]] {
                 if (!have(paths.calls, "expect call", "--calls")) return true;
                 return expect_line(call_lines, "call " + quote(want), [&](const std::string& l) {
                     return l == want ? verdict::match : verdict::wrong;
                 });
             };
         }},
        {"expect file", "PATH TEXT    PATH exists and contains TEXT", 2, 2,
         [](const args& a) -> action {
             return [path = a[0], want = a[1]] {
                 bool exists = false;
                 std::string text;
                 if (wait_for([&] { return (text = read_file(path, exists)).find(want) != std::string::npos; })) {
                     say("seen " + want + " in " + path);
                     return true;
                 }
                 if (!exists) return miss("expected file " + path + " holding " + quote(want) + "; there is none");
                 return miss("expected file " + path + " to hold " + quote(want) + "; it holds " +
                             quote(text.substr(0, 200)));
             };
         }},
        {"expect exit", "N            the daemon has exited with status N", 1, 1,
         [](const args& a) -> action {
             return [want = a.num(0, 0, 255, "exit status")] {
                 if (!have(paths.exit, "expect exit", "--exit")) return true;
                 bool exists = false;
                 std::string text;
                 wait_for([&] { return (text = read_file(paths.exit, exists)).find('\n') != std::string::npos; });
                 if (text.empty()) return miss("expected exit " + std::to_string(want) + ", the daemon runs on");
                 if (strtol(text.c_str(), nullptr, 10) != want || !dsp_rules::decimal(text.substr(0, text.find('\n'))))
                     return miss("expected exit " + std::to_string(want) + ", got " + quote(text));
                 say("daemon exited with " + std::to_string(want));
                 return true;
             };
         }},
        {"skip", "dsp|log|call        pass over what that file holds now (after a marker step)", 1, 1,
         [](const args& a) -> action {
             follower* f = a[0] == "dsp" ? &dsp_lines : a[0] == "log" ? &log_lines : a[0] == "call" ? &call_lines : nullptr;
             if (!f) throw usage_error("skip takes dsp, log or call, not " + a[0]);
             return [f] { return skip_lines(*f), true; };
         }},
        {"send", "TEXT               TEXT's bytes as they are (escapes allowed), nothing added", 1, 1,
         [](const args& a) -> action {
             return [t = a[0]] {
                 printf("%s -> %s\n", tag, quote(t).c_str());
                 write_all(t);
                 return true;
             };
         }},
        {"raw", "BYTE|\"TEXT\"|@FILE...  bytes as they are", 1, SIZE_MAX,
         [](const args& a) -> action {
             return [get = byte_list(a, 0)] {
                 bytes b = get();
                 printf("%s -> raw: %s\n", tag, b.size() > 64 ? (std::to_string(b.size()) + " bytes").c_str() : hex(b).c_str());
                 write_all(b);
                 return true;
             };
         }},
        {"hangup", "                 close the port, as a peer that goes away: the daemon's side hangs up", 0, 0,
         [](const args&) -> action {
             return [] {
                 printf("%s -> hang-up\n", tag);
                 if (port_fd >= 0) close(port_fd);
                 port_fd = -1;
                 return true;
             };
         }},
        {"capture", "SENT RECEIVED   from here on copy the bytes sent and received to these files\n"
                    "                        (for --decode)",
         2, 2, [](const args& a) -> action {
             return [sent = a[0], received = a[1]] {
                 for (auto [path, fd] : {std::pair{&sent, &capture_sent}, std::pair{&received, &capture_received}}) {
                     if (*fd >= 0) close(*fd);
                     if ((*fd = open(path->c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)) < 0)
                         return miss("cannot write " + *path + ": " + strerror(errno));
                 }
                 return true;
             };
         }},
        {"ignore dsp", "PREFIX        pass over DSP commands that start with PREFIX", 1, 1,
         [](const args& a) -> action {
             return [p = a[0]] {
                 ignored_dsp.push_back(p);
                 return true;
             };
         }},
        {"ignore none", "             ignore nothing any more", 0, 0,
         [](const args&) -> action {
             return [] {
                 ignored_dsp.clear();
                 ignored_frames.clear();
                 return true;
             };
         }},
        {"timeout", "MS               the bound of the following expectations (default 10000)", 1, 1,
         [](const args& a) -> action {
             return [ms = a.num(0, 1, 3600000, "timeout")] {
                 bound_ms = static_cast<int>(ms);
                 return true;
             };
         }},
        {"sleep", "MS                 wait MS milliseconds (for hand use; tests wait for events)", 1, 1,
         [](const args& a) -> action {
             return [ms = a.num(0, 0, 3600000, "sleep")] {
                 wait_for([] { return false; }, static_cast<int>(ms));
                 return true;
             };
         }},
        {"sh", "COMMAND...            run the rest of the line with /bin/sh -c; a non-zero status fails", 1, SIZE_MAX,
         [](const args& a) -> action { return [c = a.rest] { return run_shell(c); }; }},
        {"rule", "KIND WORD...        append a rules line for the DSP stand-in (--dsp-rules):\n"
                 "                        reply PREFIX TEXT..., silent PREFIX, delay PREFIX MS, set KEY VALUE",
         2, SIZE_MAX,
         [](const args& a) -> action {
             return [line = rules_line(a)] {
                 if (!have(paths.dsp_rules, "rule", "--dsp-rules")) return true;
                 int fd = open(paths.dsp_rules.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
                 bool ok = fd >= 0 && write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
                 if (fd >= 0) close(fd);
                 return ok ? true : miss("cannot append to " + paths.dsp_rules + ": " + strerror(errno));
             };
         }},
    };
}

// ---- the program

struct program {
    const char* name;
    const char* summary;      // first lines of --help
    const char* more_help;    // fields, examples
    std::vector<verb> verbs;  // its own; the common ones are added
    std::function<void()> show;  // prints what the inbox holds complete (interactive, listen)
    // Its own options: true if taken; next() gives the option's argument.
    std::function<bool(const std::string&, const std::function<std::string()>&)> option;
};

// One line into steps; errors are usage_errors with the reason.
inline std::optional<step> compile(const std::vector<verb>& verbs, const std::string& line, const std::string& at)
{
    word_list wl = split(line);
    if (wl.w.empty() || line[line.find_first_not_of(" \t")] == '@') return std::nullopt;
    const verb* v = nullptr;
    size_t used = 1;
    for (const auto& candidate : verbs) {
        if (wl.w.size() > 1 && candidate.name == wl.w[0] + " " + wl.w[1]) {
            v = &candidate;
            used = 2;
            break;
        }
        if (candidate.name == wl.w[0]) v = &candidate;
    }
    if (!v) {
        bool group = std::any_of(verbs.begin(), verbs.end(), [&](const verb& c) { return c.name.starts_with(wl.w[0] + " "); });
        throw usage_error(group ? "unknown kind: " + line.substr(0, wl.end.size() > 1 ? wl.end[1] : line.size())
                                : "unknown step: " + wl.w[0]);
    }
    args a;
    a.w.assign(wl.w.begin() + static_cast<long>(used), wl.w.end());
    a.quoted.assign(wl.quoted.begin() + static_cast<long>(used), wl.quoted.end());
    size_t from = wl.end[used - 1];
    a.rest = line.substr(std::min(line.size(), from + 1));
    if (a.size() < v->min || a.size() > v->max)
        throw usage_error(v->name + " takes " +
                          (v->min == v->max ? std::to_string(v->min)
                           : v->max == SIZE_MAX ? "at least " + std::to_string(v->min)
                                                : std::to_string(v->min) + " to " + std::to_string(v->max)) +
                          " argument" + (v->max == 1 ? "" : "s") + ": " + v->name + " " + v->usage.substr(0, v->usage.find("  ")));
    return step{at, v->compile(a)};
}

// "ARGS  what it does", the description aligned in a column.
inline void print_verbs(const std::vector<verb>& verbs)
{
    for (const auto& v : verbs) {
        size_t gap = v.usage.find("  ");
        std::string head = v.name + " " + v.usage.substr(0, gap);
        std::string text = v.usage.substr(v.usage.find_first_not_of(' ', gap));
        for (size_t nl = 0; (nl = text.find("\n ", nl)) != std::string::npos; nl += 30)
            text.replace(nl, text.find_first_not_of(' ', nl + 1) - nl, "\n" + std::string(29, ' '));
        printf(head.size() > 26 ? "  %s\n%29s%s\n" : "  %-26s %s%s\n", head.c_str(), "", text.c_str());
    }
}

inline void print_help(const program& p)
{
    printf("%s\n\nSteps (one a line in a script, one an argument on the command line):\n", p.summary);
    print_verbs(p.verbs);
    printf("%s\n", p.more_help);
}

// Runs the steps in order; false at the first that fails.
inline bool run_steps(const std::vector<step>& steps)
{
    for (const auto& s : steps) {
        where = s.where;
        try {
            if (!s.run()) return false;
        } catch (const std::runtime_error& e) {
            return miss(e.what());
        }
    }
    return true;
}

// Interactive: a prompt, one step a line, what the daemon sends printed as
// it comes; a failed step is reported and the session goes on.
inline int interact(const program& p)
{
    printf("%s: one step a line, \"help\" for the list, Ctrl-D to end\n", p.name);
    std::string line;
    for (;;) {
        printf("%s> ", p.name);
        fflush(stdout);
        line.clear();
        for (;;) {
            pollfd fds[2] = {{0, POLLIN, 0}, {port_fd, POLLIN, 0}};
            poll(fds, 2, -1);
            if (fds[1].revents & POLLIN) {
                fill(0);
                if (!inbox.empty()) {
                    printf("\r");
                    p.show();
                    printf("%s> %s", p.name, line.c_str());
                    fflush(stdout);
                }
            } else if (fds[1].revents) {
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
            if (!(fds[0].revents & (POLLIN | POLLHUP))) continue;
            char c;
            if (read(0, &c, 1) != 1) {
                printf("\n");
                return 0;
            }
            if (c == '\n') break;
            line += c;
        }
        if (line == "help") {
            print_verbs(p.verbs);
            continue;
        }
        try {
            where = "input";
            if (auto s = compile(p.verbs, line, "input")) s->run();
        } catch (const std::runtime_error& e) {
            printf("%s\n", e.what());
        }
    }
}

inline int run_main(int argc, char** argv, program p)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    auto common = common_verbs();
    p.verbs.insert(p.verbs.end(), common.begin(), common.end());
    try {
        std::string port, pty_file;
        line_settings line;
        std::vector<std::pair<std::string, std::string>> lines;  // (where, text)
        bool from_file = false;
        for (int i = 1; i < argc; ++i) {
            std::string a = argv[i];
            auto next = [&]() -> std::string {
                if (i + 1 >= argc) throw usage_error(a + " needs an argument");
                return argv[++i];
            };
            if (a == "-h" || a == "--help") {
                print_help(p);
                return 0;
            }
            if (a == "--version") {
                printf("%s (tty_hub) %s\n", p.name, TTY_HUB_VERSION);
                return 0;
            }
            if (p.option && p.option(a, next)) continue;
            if (a == "--port") port = next();
            else if (a == "--pty") pty_file = next();
            else if (line_option(line, a, next)) continue;
            else if (a == "--log") paths.log = next();
            else if (a == "--dsp-log") paths.dsp_log = next();
            else if (a == "--dsp-rules") paths.dsp_rules = next();
            else if (a == "--calls") paths.calls = next();
            else if (a == "--exit") paths.exit = next();
            else if (a == "-q" || a == "--quiet") quiet = true;
            else if (a == "-f") {
                std::string file = next();
                FILE* f = file == "-" ? stdin : fopen(file.c_str(), "r");
                if (!f) throw usage_error("cannot read " + file + ": " + strerror(errno));
                char* buf = nullptr;
                size_t cap = 0;
                ssize_t n;
                for (int no = 1; (n = getline(&buf, &cap, f)) >= 0; ++no)
                    lines.emplace_back("line " + std::to_string(no), std::string(buf, static_cast<size_t>(n) - (n && buf[n - 1] == '\n')));
                free(buf);
                if (f != stdin) fclose(f);
                from_file = true;
            } else if (a.starts_with("-") && a.size() > 1 && !isdigit(static_cast<unsigned char>(a[1])))
                throw usage_error("unknown option " + a + " (see --help)");
            else lines.emplace_back("argument " + std::to_string(i), a);
        }
        // A script from a pipe is read whole before anything is sent.
        bool interactive = lines.empty() && !from_file && isatty(0);
        if (lines.empty() && !from_file && !interactive) {
            std::string text;
            for (int c; (c = getchar()) != EOF;) text += static_cast<char>(c);
            size_t no = 1, at = 0;
            while (at < text.size()) {
                size_t nl = text.find('\n', at);
                if (nl == std::string::npos) nl = text.size();
                lines.emplace_back("line " + std::to_string(no++), text.substr(at, nl - at));
                at = nl + 1;
            }
        }
        std::vector<step> steps;
        std::string errors;
        for (const auto& [at, text] : lines) {
            try {
                if (auto s = compile(p.verbs, text, at)) steps.push_back(std::move(*s));
            } catch (const usage_error& e) {
                errors += std::string(tag) + " " + at + ": " + e.what() + "\n";
            }
        }
        if (!errors.empty()) {
            fputs(errors.c_str(), stderr);
            fprintf(stderr, "%s nothing was sent\n", tag);
            return 2;
        }
        if (port.empty() == pty_file.empty()) throw usage_error("give one of --port DEV or --pty FILE");
        port_fd = pty_file.empty() ? open_terminal(port, line) : open_pty(pty_file);
        if (interactive) return interact(p);
        return run_steps(steps) ? 0 : 1;
    } catch (const usage_error& e) {
        fprintf(stderr, "%s %s\n", tag, e.what());
        return 2;
    }
}

}  // namespace sim
