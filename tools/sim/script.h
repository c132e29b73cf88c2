// The script machinery of the peer simulators: words with quotes and escapes,
// a whole script compiled and checked into steps before anything is sent, the
// session every step runs in, the steps both simulators share (expectations
// over the daemon's log, the DSP stand-in's report, the stand-in log and
// files; timeout, ignore, sh, rule), and the common command line.
//
// The simulators compute the link's check digit, tuning checksum and
// read-back sum with their own code on purpose: an oracle independent of the
// daemon's.
#pragma once
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/sim/port.h"

namespace sim {

// Words: blanks separate; "..." holds blanks; \n \r \t \\ \" \0 \xHH
// anywhere; a word that starts with # ends the line.
struct word_list {
    std::vector<std::string> w;
    std::vector<size_t> end;   // where each word ends in the line
    std::vector<bool> quoted;  // held quotes: text, never a number
};
word_list split(const std::string& line);

// Text for a message: escaped, in quotes.
std::string quote(std::string_view s);

// A file that grows while it is read: whole lines only.
struct follower {
    std::string path;
    int fd = -1;
    std::string buf;
    std::optional<std::string> next();
    void skip() { while (next()) {} }
};

// Options the test runner gives: the daemon's log, the DSP stand-in's report
// and rules, the stand-in programs' log, the daemon's exit status.
struct files {
    std::string log, dsp_log, dsp_rules, calls, exit;
};

enum class verdict { match, skip, wrong };

// Everything a running script works on: the port, the runner's files, the
// bound of expectations and what they pass over. A simulator derives its own
// from it for the state of its link.
struct session {
    explicit session(const char* tag_) : tag(tag_) { io.tag = tag_; }
    session(const session&) = delete;
    session& operator=(const session&) = delete;
    virtual ~session() = default;

    const char* tag;
    port io;
    files paths;
    follower log_lines, dsp_lines, call_lines;
    std::string where;  // of the step that runs
    bool quiet = false;
    int bound_ms = 10000;
    std::vector<std::string> ignored_dsp;
    std::vector<int> ignored_frames;
    // What the "mark" step saw: its time, and the daemon's process with the
    // CPU ticks it had used (pid 0 when no daemon ran).
    steady::time_point mark_time{};
    long mark_pid = 0, mark_ticks = 0;

    // A failed step: its place and what went wrong, on standard error.
    bool miss(const std::string& what);
    void say(const std::string& what);
    // Whether a step that needs the option can run; else it is reported skipped.
    bool have(const std::string& path, const char* step, const char* option);
    // Polls ready() until it holds or ms (default: the bound) pass, reading
    // the port meanwhile so that a daemon that sends reports never blocks on
    // a full line.
    bool wait_for(const std::function<bool()>& ready, int ms = -1);
    // Waits for the line that judge() takes; the first wrong one, or none, fails.
    bool expect_line(follower& f, const std::string& what, const std::function<verdict(const std::string&)>& judge,
                     bool escaped = false);
    std::string nothing_within() const;
};

// A file's text now, or nothing if there is none.
std::optional<std::string> read_file(const std::string& path);

// ---- steps

struct args {
    std::vector<std::string> w;  // the words after the verb
    std::vector<bool> quoted;
    std::string rest;            // the raw text after the verb
    size_t size() const { return w.size(); }
    const std::string& operator[](size_t i) const { return w.at(i); }
    long num(size_t i, long lo, long hi, const std::string& what) const { return number(w.at(i), lo, hi, what); }
};

using action = std::function<bool(session&)>;

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

// Bytes from words: numbers 0..255, "quoted text" as its bytes, @FILE as the
// file's bytes. The files are read and checked here, with the rest of the
// script, so that a missing one stops the script before a byte is sent.
bytes byte_list(const args& a, size_t from);

// A file a step uses when it runs: if it is there now it must be a readable
// regular file (a directory is refused before anything is sent); one that
// is not there yet may be made by an earlier step.
void check_if_there(const std::string& path);

// ---- the program

struct program {
    const char* name;
    const char* summary;      // first lines of --help
    const char* more_help;    // fields, examples
    std::vector<verb> verbs;  // its own; the common ones are added
    std::function<void(session&)> show;  // prints what the inbox holds complete (interactive, listen)
    // Its own options: true if taken; next() gives the option's argument.
    std::function<bool(session&, const std::string&, const std::function<std::string()>&)> option;
};

// Parts of the usage that both simulators print.
extern const char* const common_options_help;
extern const char* const script_help;
extern const char* const exit_help;

// The command line, the script checked whole, then the steps in order (or
// an interactive session): 0, 1 at the first failed step, 2 for a usage error.
int run_main(int argc, char** argv, program p, session& s);

}  // namespace sim
