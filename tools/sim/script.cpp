#include "tools/sim/script.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <dirent.h>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <regex.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sstream>
#include <thread>
#include <unistd.h>

#include "tools/sim/rules.h"

namespace sim {

word_list split(const std::string& line)
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

std::string quote(std::string_view s) { return "\"" + dsp_rules::escape(std::string(s)) + "\""; }

std::optional<std::string> follower::next()
{
    if (fd < 0 && (fd = open(path.c_str(), O_RDONLY | O_CLOEXEC)) < 0) return std::nullopt;
    char chunk[4096];
    ssize_t n;
    while ((n = read(fd, chunk, sizeof chunk)) > 0) buf.append(chunk, static_cast<size_t>(n));
    size_t nl = buf.find('\n');
    if (nl == std::string::npos) return std::nullopt;
    std::string line = buf.substr(0, nl);
    buf.erase(0, nl + 1);
    return line;
}

std::optional<std::string> read_file(const std::string& path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string out;
    char chunk[4096];
    ssize_t n;
    while ((n = read(fd, chunk, sizeof chunk)) > 0) out.append(chunk, static_cast<size_t>(n));
    close(fd);
    return out;
}

namespace {

// The running daemon's process (by its command name, which stays tty_hub
// under an emulator too), or 0.
long daemon_pid()
{
    std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
    for (dirent* e; proc && (e = readdir(proc.get()));) {
        char* end;
        long pid = strtol(e->d_name, &end, 10);
        if (*end || pid <= 0) continue;
        auto comm = read_file("/proc/" + std::string(e->d_name) + "/comm");
        if (comm && *comm == "tty_hub\n") return pid;
    }
    return 0;
}

// User and system ticks the process has used, or -1 once it is gone.
long cpu_ticks(long pid)
{
    auto stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    if (!stat) return -1;
    size_t at = stat->rfind(')');  // the command name may hold spaces
    if (at == std::string::npos) return -1;
    std::istringstream fields(stat->substr(at + 2));
    std::string f;
    long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> f; ++i) {
        if (i == 14) utime = std::stol(f);
        if (i == 15) stime = std::stol(f);
    }
    return utime + stime;
}

}  // namespace


// ---- the session

bool session::miss(const std::string& what)
{
    fflush(stdout);
    fprintf(stderr, "%s %s: %s\n", tag, where.c_str(), what.c_str());
    return false;
}

void session::say(const std::string& what)
{
    if (!quiet) printf("%s %s\n", tag, what.c_str());
}

bool session::have(const std::string& path, const char* step, const char* option)
{
    if (path.empty()) printf("%s %s: %s skipped (no %s)\n", tag, where.c_str(), step, option);
    return !path.empty();
}

bool session::wait_for(const std::function<bool()>& ready, int ms)
{
    auto deadline = steady::now() + std::chrono::milliseconds(ms < 0 ? bound_ms : ms);
    for (;;) {
        if (ready()) return true;
        int left = ms_left(deadline);
        if (left == 0) return ready();
        io.fill(std::min(left, 10));
    }
}

std::string session::nothing_within() const { return "nothing within " + std::to_string(bound_ms) + " ms"; }

bool session::expect_line(follower& f, const std::string& what, const std::function<verdict(const std::string&)>& judge,
                          bool escaped)
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
    return miss("expected " + what + ", " + nothing_within());
}

namespace {

// The state a script keeps between its steps beyond the session's: the
// texts of the log the script named, for the closing check.
struct expected_texts {
    std::vector<std::string> log;
};

bool run_shell(session& s, const std::string& command)
{
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    if (pid < 0) return s.miss(std::string("fork: ") + strerror(errno));
    int status = 0;
    for (pid_t r; (r = waitpid(pid, &status, WNOHANG)) <= 0;) {
        if (r < 0 && errno != EINTR) return s.miss(std::string("waitpid: ") + strerror(errno));
        s.io.fill(10);
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
    return s.miss("sh " + quote(command) + " ended with status " +
                  std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)));
}

// A rules line as the DSP stand-in reads it; checked here, so that a script
// with a rule the stand-in would refuse never starts.
std::string rules_line(const args& a)
{
    std::string line = a[0];
    for (size_t i = 1; i < a.size(); ++i) line.append("\t").append(dsp_rules::escape(a[i]));
    std::string why = dsp_rules::problem(line);
    if (!why.empty()) throw usage_error("rule: " + why);
    return line + "\n";
}

// The runner's file a step names: log, dsp or call.
follower& followed(session& s, const std::string& which)
{
    return which == "dsp" ? s.dsp_lines : which == "log" ? s.log_lines : s.call_lines;
}
const std::string& followed_path(session& s, const std::string& which)
{
    return which == "dsp" ? s.paths.dsp_log : which == "log" ? s.paths.log : s.paths.calls;
}
const char* option_of(const std::string& which)
{
    return which == "dsp" ? "--dsp-log" : which == "log" ? "--log" : "--calls";
}
void check_which(const std::string& which, const char* step)
{
    if (which != "dsp" && which != "log" && which != "call")
        throw usage_error(std::string(step) + " takes dsp, log or call, not " + which);
}

// The whole lines of a runner's file that count (dsp lines are seen
// unescaped), or that contain text.
long count_lines(const std::string& path, const std::string& which, const std::function<bool(const std::string&)>& counts)
{
    auto all = read_file(path);
    if (!all) return 0;
    long n = 0;
    for (size_t at = 0, nl; (nl = all->find('\n', at)) != std::string::npos; at = nl + 1) {
        std::string line = all->substr(at, nl - at);
        if (which == "dsp") line = dsp_rules::unescape(line);
        n += counts(line);
    }
    return n;
}
long count_lines(const std::string& path, const std::string& which, const std::string& text)
{
    return count_lines(path, which, [&](const std::string& l) { return l.find(text) != std::string::npos; });
}

// FILE made anew with text, then renamed into place: a reader sees the old
// file or the new one whole.
bool put_file(session& s, const std::string& path, const std::string& text)
{
    std::string tmp = path + ".tmp";
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bool ok = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (fd >= 0) ok = close(fd) == 0 && ok;
    if (!ok || rename(tmp.c_str(), path.c_str()) != 0) return s.miss("cannot write " + path + ": " + strerror(errno));
    s.say("wrote " + path + " (" + std::to_string(text.size()) + " bytes)");
    return true;
}

// A daemon log line that tells of a failure.
bool failure_line(const std::string& line)
{
    static const char* const words[] = {"fail", "error", "wrong", "cannot", "can not", "timeout", "not found", "invalid", "hung up"};
    std::string lower(line);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return static_cast<char>(tolower(c)); });
    return std::any_of(std::begin(words), std::end(words), [&](const char* w) { return lower.find(w) != std::string::npos; });
}

}  // namespace

void check_if_there(const std::string& path)
{
    struct stat st {};
    if (stat(path.c_str(), &st) == 0) read_whole(path);
}

bytes byte_list(const args& a, size_t from)
{
    bytes out;
    for (size_t i = from; i < a.size(); ++i) {
        if (a.quoted[i]) out.insert(out.end(), a[i].begin(), a[i].end());
        else if (a[i].starts_with("@")) {
            std::string text = read_whole(a[i].substr(1));
            out.insert(out.end(), text.begin(), text.end());
        } else out.push_back(static_cast<uint8_t>(a.num(i, 0, 255, "byte")));
    }
    return out;
}

const char* const common_options_help = R"(  --port DEV        a terminal (a board's port); line settings as the daemon's:
  -b RATE -P odd|even|mark|space -B (two stop bits) -c (RTS/CTS); default 115200 8N1
  --pty FILE        make a pseudo-terminal, write its slave's path to FILE
  -f SCRIPT         steps from SCRIPT ('-': standard input); '#' starts a comment,
                    lines starting with '@' are for the test runner
  --log FILE --dsp-log FILE --dsp-rules FILE --calls FILE --exit FILE
                    the daemon's log, the DSP stand-in's report and rules, the
                    stand-in log, the daemon's exit status; without one, the steps
                    that need it are reported skipped and pass. With --log, a
                    script that passed fails if the log holds a failure line
                    (fail, error, wrong, cannot, timeout, not found, invalid,
                    hung up) that no expect log or expect count log step named
)";
const char* const script_help = R"(Words are separated by blanks; "..." is one word; \n \r \t \\ \" \0 \xHH escape.
Numbers are decimal or 0x hex. The whole script is checked before anything is
sent, @FILE read with it. Without steps and with a terminal on standard input:
interactive.
)";
const char* const exit_help = R"(Exit status: 0; 1 at the first failed step; 2 for a bad command line or script
(nothing sent) or a port that cannot be set up.
)";

namespace {

// The steps both simulators know.
std::vector<verb> common_verbs(expected_texts& expected)
{
    return {
        {"expect dsp", "TEXT...       the next DSP commands the daemon sent are exactly these, in order", 1, SIZE_MAX,
         [](const args& a) -> action {
             std::vector<std::string> wants;
             for (const auto& w : a.w) wants.push_back(dsp_rules::escape(w));
             return [wants](session& s) {
                 if (!s.have(s.paths.dsp_log, "expect dsp", "--dsp-log")) return true;
                 for (const auto& want : wants) {
                     bool ok = s.expect_line(s.dsp_lines, "dsp \"" + want + "\"", [&](const std::string& l) {
                         if (l == want) return verdict::match;
                         std::string text = dsp_rules::unescape(l);
                         for (const auto& p : s.ignored_dsp)
                             if (text.starts_with(p)) return verdict::skip;
                         return verdict::wrong;
                     }, true);
                     if (!ok) return false;
                 }
                 return true;
             };
         }},
        {"expect log", "TEXT          a line of the daemon's log from here on contains TEXT", 1, 1,
         [&expected](const args& a) -> action {
             return [want = a[0], &expected](session& s) {
                 expected.log.push_back(want);
                 if (!s.have(s.paths.log, "expect log", "--log")) return true;
                 return s.expect_line(s.log_lines, "log " + quote(want), [&](const std::string& l) {
                     return l.find(want) != std::string::npos ? verdict::match : verdict::skip;
                 });
             };
         }},
        {"expect count", "log|dsp|call TEXT N  exactly N lines of that file from its start contain TEXT\n"
                         "                        (waits for N; after a marker step, more than N fail)",
         3, 3, [&expected](const args& a) -> action {
             check_which(a[0], "expect count");
             return [which = a[0], text = a[1], n = a.num(2, 0, 1000000, "count"), &expected](session& s) {
                 if (which == "log") expected.log.push_back(text);
                 const std::string& path = followed_path(s, which);
                 if (!s.have(path, "expect count", option_of(which))) return true;
                 long got = 0;
                 s.wait_for([&] { return (got = count_lines(path, which, text)) >= n; });
                 if (got == n) return s.say(std::to_string(n) + " " + which + " lines with " + quote(text)), true;
                 return s.miss("expected " + std::to_string(n) + " " + which + " lines with " + quote(text) + ", " +
                               (got < n ? "only " : "") + std::to_string(got) + " came");
             };
         }},
        {"expect lines", "log|dsp|call REGEX N  exactly N lines of that file from its start match the\n"
                         "                        extended regular expression REGEX (waits for N, as expect count)",
         3, 3, [](const args& a) -> action {
             check_which(a[0], "expect lines");
             regex_t compiled;
             if (int err = regcomp(&compiled, a[1].c_str(), REG_EXTENDED | REG_NOSUB)) {
                 char why[128];
                 regerror(err, &compiled, why, sizeof why);
                 throw usage_error("expect lines: " + std::string(why) + ": " + a[1]);
             }
             std::shared_ptr<regex_t> owned(new regex_t(compiled), [](regex_t* r) { regfree(r), delete r; });
             return [which = a[0], text = a[1], n = a.num(2, 0, 1000000, "count"), owned](session& s) {
                 const std::string& path = followed_path(s, which);
                 if (!s.have(path, "expect lines", option_of(which))) return true;
                 auto matching = [&] {
                     return count_lines(path, which, [&](const std::string& l) { return regexec(owned.get(), l.c_str(), 0, nullptr, 0) == 0; });
                 };
                 long got = 0;
                 s.wait_for([&] { return (got = matching()) >= n; });
                 if (got == n) return s.say(std::to_string(n) + " " + which + " lines match " + quote(text)), true;
                 return s.miss("expected " + std::to_string(n) + " " + which + " lines to match " + quote(text) + ", " +
                               (got < n ? "only " : "") + std::to_string(got) + " did");
             };
         }},
        {"allow log", "TEXT           failure lines with TEXT may come, as many as they will (for the\n"
                      "                        closing check; where their number is fixed, use expect count log)",
         1, 1, [&expected](const args& a) -> action {
             return [text = a[0], &expected](session&) { return expected.log.push_back(text), true; };
         }},
        {"expect no", "log|dsp|call TEXT|file PATH  no line of that file so far contains TEXT; or\n"
                      "                        PATH does not exist (after a marker step)",
         2, 2, [](const args& a) -> action {
             if (a[0] == "file")
                 return [path = a[1]](session& s) {
                     struct stat st {};
                     if (lstat(path.c_str(), &st) != 0) return s.say("no file " + path), true;
                     return s.miss("expected no file " + path + "; there is one");
                 };
             check_which(a[0], "expect no");
             return [which = a[0], text = a[1]](session& s) {
                 const std::string& path = followed_path(s, which);
                 if (!s.have(path, "expect no", option_of(which))) return true;
                 long got = count_lines(path, which, text);
                 if (got == 0) return s.say("no " + which + " line with " + quote(text)), true;
                 return s.miss("expected no " + which + " line with " + quote(text) + ", " + std::to_string(got) + " came");
             };
         }},
        {"expect last", "log|call TEXT...  the last lines of that file so far are exactly these", 2, SIZE_MAX,
         [](const args& a) -> action {
             if (a[0] != "log" && a[0] != "call") throw usage_error("expect last takes log or call, not " + a[0]);
             std::vector<std::string> wants(a.w.begin() + 1, a.w.end());
             return [which = a[0], wants](session& s) {
                 const std::string& path = followed_path(s, which);
                 if (!s.have(path, "expect last", option_of(which))) return true;
                 std::string all = read_file(path).value_or("");
                 std::vector<std::string> lines;
                 for (size_t at = 0, nl; (nl = all.find('\n', at)) != std::string::npos; at = nl + 1)
                     lines.push_back(all.substr(at, nl - at));
                 std::string got;
                 for (size_t i = lines.size() - std::min(lines.size(), wants.size()); i < lines.size(); ++i)
                     got += (got.empty() ? "" : ", ") + quote(lines[i]);
                 if (lines.size() >= wants.size() && std::equal(wants.begin(), wants.end(), lines.end() - static_cast<long>(wants.size())))
                     return s.say("last " + which + " lines " + got), true;
                 return s.miss("expected the last " + which + " lines to be these, they are " + (got.empty() ? "none" : got));
             };
         }},
        {"expect call", "TEXT         the next line of the stand-in log is exactly TEXT", 1, 1,
         [](const args& a) -> action {
             return [want = a[0]](session& s) {
                 if (!s.have(s.paths.calls, "expect call", "--calls")) return true;
                 return s.expect_line(s.call_lines, "call " + quote(want), [&](const std::string& l) {
                     return l == want ? verdict::match : verdict::wrong;
                 });
             };
         }},
        {"expect file", "PATH [HOW] TEXT  PATH exists and contains TEXT; HOW: lacks (does not contain\n"
                        "                        it), is (holds exactly TEXT), size (of TEXT bytes), same (the same bytes\n"
                        "                        as the file TEXT), begins (with the bytes of the file TEXT), kind (regular or\n"
                        "                        fifo, the name itself and not a link's target)",
         2, 3, [](const args& a) -> action {
             static const std::vector<std::string> ways = {"lacks", "is", "size", "same", "begins", "kind"};
             std::string how = a.size() == 3 ? a[1] : "contains";
             if (a.size() == 3 && std::find(ways.begin(), ways.end(), how) == ways.end())
                 throw usage_error("expect file PATH takes lacks, is, size, same, begins or kind before its last word, not " + how);
             long size = how == "size" ? a.num(2, 0, LONG_MAX, "size") : 0;
             if (how == "kind") {
                 // Not read: a FIFO would hold the reader. The name itself, never a link's target.
                 if (a[2] != "regular" && a[2] != "fifo") throw usage_error("expect file PATH kind takes regular or fifo, not " + a[2]);
                 return [path = a[0], fifo = a[2] == "fifo"](session& s) {
                     struct stat st {};
                     auto holds = [&] { return lstat(path.c_str(), &st) == 0 && (fifo ? S_ISFIFO(st.st_mode) : S_ISREG(st.st_mode)); };
                     std::string what = fifo ? "a FIFO" : "a regular file";
                     if (s.wait_for(holds)) return s.say("seen " + path + ", " + what), true;
                     return s.miss("expected " + path + " to be " + what + (lstat(path.c_str(), &st) ? "; there is none" : "; it is not"));
                 };
             }
             return [path = a[0], how, want = a[a.size() - 1], size](session& s) {
                 std::optional<std::string> text, other;
                 auto holds = [&] {
                     if (!(text = read_file(path))) return false;
                     if (how == "contains") return text->find(want) != std::string::npos;
                     if (how == "lacks") return text->find(want) == std::string::npos;
                     if (how == "is") return *text == want;
                     if (how == "size") return static_cast<long>(text->size()) == size;
                     if (!(other = read_file(want))) return false;
                     return how == "same" ? *other == *text : text->starts_with(*other);
                 };
                 std::string what = how == "contains" ? "holding " + quote(want)
                                    : how == "lacks"  ? "without " + quote(want)
                                    : how == "is"     ? "of exactly " + quote(want.substr(0, 200))
                                    : how == "size"   ? "of " + want + " bytes"
                                    : how == "same"   ? "the same as " + want
                                                      : "beginning with " + want;
                 if (s.wait_for(holds)) return s.say("seen " + path + " " + what), true;
                 if (!text) return s.miss("expected file " + path + " " + what + "; there is none");
                 if ((how == "same" || how == "begins") && !other) return s.miss("expected file " + path + " " + what + "; there is no " + want);
                 return s.miss("expected file " + path + " " + what + "; it holds " + std::to_string(text->size()) +
                               " bytes " + quote(text->substr(0, 200)));
             };
         }},
        {"mark", "                   note the time, and the daemon's process with the CPU it has used so far", 0, 0,
         [](const args&) -> action {
             return [](session& s) {
                 s.mark_time = steady::now();
                 s.mark_pid = daemon_pid();
                 s.mark_ticks = s.mark_pid ? cpu_ticks(s.mark_pid) : 0;
                 return true;
             };
         }},
        {"expect elapsed", "MS        at least MS milliseconds have passed since the mark", 1, 1,
         [](const args& a) -> action {
             return [want = a.num(0, 0, LONG_MAX, "milliseconds")](session& s) {
                 auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(steady::now() - s.mark_time).count();
                 if (ms >= want) return s.say(std::to_string(ms) + " ms since the mark"), true;
                 return s.miss("expected at least " + std::to_string(want) + " ms since the mark, " + std::to_string(ms) + " passed");
             };
         }},
        {"expect cpu", "TICKS         the daemon seen by the mark exits, having used at most TICKS of CPU\n"
                       "                        since then (a spinning core uses 100 a second)",
         1, 1, [](const args& a) -> action {
             return [most = a.num(0, 0, LONG_MAX, "ticks")](session& s) {
                 if (!s.mark_pid) return s.miss("expect cpu: no daemon was running at the mark");
                 long last = s.mark_ticks;
                 bool gone = s.wait_for([&] {
                     long t = cpu_ticks(s.mark_pid);
                     if (t >= 0) last = t;
                     return t < 0;
                 });
                 std::string used = std::to_string(last - s.mark_ticks) + " ticks of CPU since the mark";
                 if (!gone) return s.miss("expected the daemon to exit; it is still there after " + used);
                 if (last - s.mark_ticks > most) return s.miss("expected at most " + std::to_string(most) + " ticks, the daemon used " + used);
                 return s.say("the daemon exited after " + used), true;
             };
         }},
        {"expect settings", "RATE VMIN VTIME  the daemon's end of the pseudo-terminal (--pty) has this speed\n"
                            "                        and these VMIN and VTIME now",
         3, 3, [](const args& a) -> action {
             peer_settings want{a.num(0, 0, 4000000, "rate"), static_cast<int>(a.num(1, 0, 255, "VMIN")),
                                static_cast<int>(a.num(2, 0, 255, "VTIME"))};
             return [want](session& s) {
                 peer_settings got{};
                 if (!s.io.peer(got)) return s.miss("expect settings needs --pty");
                 auto text = [](const peer_settings& p) {
                     return std::to_string(p.rate) + " baud, VMIN " + std::to_string(p.vmin) + ", VTIME " + std::to_string(p.vtime);
                 };
                 if (got.rate == want.rate && got.vmin == want.vmin && got.vtime == want.vtime)
                     return s.say("settings " + text(got)), true;
                 return s.miss("expected " + text(want) + ", the daemon's end has " + text(got));
             };
         }},
        {"expect exit", "N            the daemon has exited with status N", 1, 1,
         [](const args& a) -> action {
             return [want = a.num(0, 0, 255, "exit status")](session& s) {
                 if (!s.have(s.paths.exit, "expect exit", "--exit")) return true;
                 std::string text;
                 s.wait_for([&] { return (text = read_file(s.paths.exit).value_or("")).find('\n') != std::string::npos; });
                 if (text.empty()) return s.miss("expected exit " + std::to_string(want) + ", the daemon runs on");
                 if (strtol(text.c_str(), nullptr, 10) != want || !dsp_rules::decimal(text.substr(0, text.find('\n'))))
                     return s.miss("expected exit " + std::to_string(want) + ", got " + quote(text));
                 s.say("daemon exited with " + std::to_string(want));
                 return true;
             };
         }},
        {"skip", "dsp|log|call        pass over what that file holds now (after a marker step)", 1, 1,
         [](const args& a) -> action {
             check_which(a[0], "skip");
             return [which = a[0]](session& s) { return followed(s, which).skip(), true; };
         }},
        {"send", "TEXT               TEXT's bytes as they are (escapes allowed), nothing added", 1, 1,
         [](const args& a) -> action {
             return [t = a[0]](session& s) {
                 printf("%s -> %s\n", s.tag, quote(t).c_str());
                 s.io.write_all(t);
                 return true;
             };
         }},
        {"raw", "BYTE|\"TEXT\"|@FILE...  bytes as they are", 1, SIZE_MAX,
         [](const args& a) -> action {
             return [b = byte_list(a, 0)](session& s) {
                 printf("%s -> raw: %s\n", s.tag, b.size() > 64 ? (std::to_string(b.size()) + " bytes").c_str() : hex(b).c_str());
                 s.io.write_all(b);
                 return true;
             };
         }},
        {"write", "FILE TEXT         write TEXT to FILE (made anew, then renamed into place)", 2, 2,
         [](const args& a) -> action {
             return [path = a[0], text = a[1]](session& s) { return put_file(s, path, text); };
         }},
        {"copy", "SOURCE FILE      FILE becomes a copy of SOURCE (made anew, then renamed into place)", 2, 2,
         [](const args& a) -> action {
             check_if_there(a[0]);
             return [from = a[0], path = a[1]](session& s) { return put_file(s, path, read_whole(from)); };
         }},
        {"remove", "FILE             remove FILE (it must be there)", 1, 1,
         [](const args& a) -> action {
             return [path = a[0]](session& s) {
                 if (unlink(path.c_str()) != 0) return s.miss("cannot remove " + path + ": " + strerror(errno));
                 return s.say("removed " + path), true;
             };
         }},
        {"hangup", "                 close the port, as a peer that goes away: the daemon's side hangs up", 0, 0,
         [](const args&) -> action {
             return [](session& s) {
                 printf("%s -> hang-up\n", s.tag);
                 s.io.hang_up();
                 return true;
             };
         }},
        {"capture", "SENT RECEIVED   from here on copy the bytes sent and received to these files\n"
                    "                        (for --decode)",
         2, 2, [](const args& a) -> action {
             return [sent = a[0], received = a[1]](session& s) {
                 for (auto [path, fd] : {std::pair{&sent, &s.io.capture_sent}, std::pair{&received, &s.io.capture_received}}) {
                     if (*fd >= 0) close(*fd);
                     if ((*fd = open(path->c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)) < 0)
                         return s.miss("cannot write " + *path + ": " + strerror(errno));
                 }
                 return true;
             };
         }},
        {"ignore dsp", "PREFIX        pass over DSP commands that start with PREFIX", 1, 1,
         [](const args& a) -> action {
             return [p = a[0]](session& s) {
                 s.ignored_dsp.push_back(p);
                 return true;
             };
         }},
        {"ignore none", "             ignore nothing any more", 0, 0,
         [](const args&) -> action {
             return [](session& s) {
                 s.ignored_dsp.clear();
                 s.ignored_frames.clear();
                 return true;
             };
         }},
        {"timeout", "MS               the bound of the following expectations (default 10000)", 1, 1,
         [](const args& a) -> action {
             return [ms = a.num(0, 1, 3600000, "timeout")](session& s) {
                 s.bound_ms = static_cast<int>(ms);
                 return true;
             };
         }},
        {"sleep", "MS                 wait MS milliseconds (for hand use; tests wait for events)", 1, 1,
         [](const args& a) -> action {
             return [ms = a.num(0, 0, 3600000, "sleep")](session& s) {
                 s.wait_for([] { return false; }, static_cast<int>(ms));
                 return true;
             };
         }},
        {"sh", "COMMAND...            run the rest of the line with /bin/sh -c; a non-zero status fails", 1, SIZE_MAX,
         [](const args& a) -> action { return [c = a.rest](session& s) { return run_shell(s, c); }; }},
        {"rule", "KIND WORD...        append a rules line for the DSP stand-in (--dsp-rules):\n"
                 "                        reply PREFIX TEXT..., silent PREFIX, delay PREFIX MS, set KEY VALUE",
         2, SIZE_MAX,
         [](const args& a) -> action {
             return [line = rules_line(a)](session& s) {
                 if (!s.have(s.paths.dsp_rules, "rule", "--dsp-rules")) return true;
                 int fd = open(s.paths.dsp_rules.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
                 bool ok = fd >= 0 && write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
                 if (fd >= 0) close(fd);
                 return ok ? true : s.miss("cannot append to " + s.paths.dsp_rules + ": " + strerror(errno));
             };
         }},
    };
}

// The closing check: every failure line of the daemon's log was named by an
// expectation of the script.
bool no_unexpected_failures(session& s, const expected_texts& expected)
{
    if (s.paths.log.empty()) return true;
    std::string all = read_file(s.paths.log).value_or("");
    s.where = "end";
    for (size_t at = 0, nl; (nl = all.find('\n', at)) != std::string::npos; at = nl + 1) {
        std::string line = all.substr(at, nl - at);
        if (!failure_line(line)) continue;
        if (std::none_of(expected.log.begin(), expected.log.end(),
                         [&](const std::string& t) { return line.find(t) != std::string::npos; }))
            return s.miss("a failure line that no step expected: " + quote(line));
    }
    return true;
}

}  // namespace

namespace {

// One line into a step; errors are usage_errors with the reason.
std::optional<step> compile(const std::vector<verb>& verbs, const std::string& line, const std::string& at)
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
void print_verbs(const std::vector<verb>& verbs)
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

void print_help(const program& p)
{
    printf("%s\n\nSteps (one a line in a script, one an argument on the command line):\n", p.summary);
    print_verbs(p.verbs);
    printf("%s\n", p.more_help);
}

// Runs the steps in order; false at the first that fails.
bool run_steps(session& s, const std::vector<step>& steps)
{
    for (const auto& st : steps) {
        s.where = st.where;
        try {
            if (!st.run(s)) return false;
        } catch (const std::runtime_error& e) {
            return s.miss(e.what());
        }
    }
    return true;
}

// Interactive: a prompt, one step a line, what the daemon sends printed as
// it comes; a failed step is reported and the session goes on. A step runs
// whole before the next line is read, and lines typed meanwhile wait their
// turn: each line is one step.
int interact(const program& p, session& s)
{
    printf("%s: one step a line, \"help\" for the list, Ctrl-D to end\n", p.name);
    std::string typed;  // read from the terminal, not yet run
    bool at_end = false;
    for (;;) {
        size_t nl;
        while ((nl = typed.find('\n')) == std::string::npos && !at_end) {
            printf("%s> %s", p.name, typed.c_str());
            fflush(stdout);
            for (;;) {
                pollfd fds[2] = {{0, POLLIN, 0}, {s.io.fd, POLLIN, 0}};
                poll(fds, 2, -1);
                if (fds[1].revents & POLLIN) {
                    s.io.fill(0);
                    if (!s.io.inbox.empty()) {
                        printf("\r");
                        p.show(s);
                        printf("%s> %s", p.name, typed.c_str());
                        fflush(stdout);
                    }
                } else if (fds[1].revents) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(50));
                }
                if (fds[0].revents & (POLLIN | POLLHUP)) break;
            }
            char chunk[256];
            ssize_t n = read(0, chunk, sizeof chunk);
            if (n <= 0) at_end = true;
            else typed.append(chunk, static_cast<size_t>(n));
        }
        if (nl == std::string::npos) {
            printf("\n");
            return 0;
        }
        std::string line = typed.substr(0, nl);
        typed.erase(0, nl + 1);
        if (line == "help") {
            print_verbs(p.verbs);
            continue;
        }
        try {
            s.where = "input";
            auto st = compile(p.verbs, line, "input");
            // An expectation looks at what came since the step before it.
            if (st && !line.starts_with("expect")) {
                s.log_lines.skip();
                s.dsp_lines.skip();
                s.call_lines.skip();
            }
            if (st) st->run(s);
        } catch (const std::runtime_error& e) {
            printf("%s\n", e.what());
        }
    }
}

}  // namespace

int run_main(int argc, char** argv, program p, session& s)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    expected_texts expected;
    auto common = common_verbs(expected);
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
                printf("%s (tty_hub) %s\n", p.name, version);
                return 0;
            }
            if (p.option && p.option(s, a, next)) continue;
            if (a == "--port") port = next();
            else if (a == "--pty") pty_file = next();
            else if (line_option(line, a, next)) continue;
            else if (a == "--log") s.paths.log = next();
            else if (a == "--dsp-log") s.paths.dsp_log = next();
            else if (a == "--dsp-rules") s.paths.dsp_rules = next();
            else if (a == "--calls") s.paths.calls = next();
            else if (a == "--exit") s.paths.exit = next();
            else if (a == "-q" || a == "--quiet") s.quiet = true;
            else if (a == "-f") {
                std::string file = next();
                std::string text;
                if (file != "-") text = read_whole(file);
                else for (int c; (c = getchar()) != EOF;) text += static_cast<char>(c);
                size_t no = 1;
                for (size_t at = 0; at < text.size(); ++no) {
                    size_t nl = std::min(text.find('\n', at), text.size());
                    lines.emplace_back("line " + std::to_string(no), text.substr(at, nl - at));
                    at = nl + 1;
                }
                from_file = true;
            } else if (a.starts_with("-") && a.size() > 1 && !isdigit(static_cast<unsigned char>(a[1])))
                throw usage_error("unknown option " + a + " (see --help)");
            else lines.emplace_back("argument " + std::to_string(i), a);
        }
        s.log_lines.path = s.paths.log;
        s.dsp_lines.path = s.paths.dsp_log;
        s.call_lines.path = s.paths.calls;
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
                if (auto st = compile(p.verbs, text, at)) steps.push_back(std::move(*st));
            } catch (const usage_error& e) {
                errors += std::string(s.tag) + " " + at + ": " + e.what() + "\n";
            }
        }
        if (!errors.empty()) {
            fputs(errors.c_str(), stderr);
            fprintf(stderr, "%s nothing was sent\n", s.tag);
            return 2;
        }
        s.io.open(port, pty_file, line);
        if (interactive) return interact(p, s);
        return run_steps(s, steps) && no_unexpected_failures(s, expected) ? 0 : 1;
    } catch (const usage_error& e) {
        fprintf(stderr, "%s %s\n", s.tag, e.what());
        return 2;
    }
}

}  // namespace sim
