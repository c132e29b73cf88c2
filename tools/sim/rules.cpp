#include "tools/sim/rules.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace dsp_rules {

std::string escape(const std::string& s)
{
    std::string out;
    for (unsigned char c : s) {
        switch (c) {
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        case '\\': out += "\\\\"; break;
        case '\0': out += "\\0"; break;
        default:
            if (c < 0x20 || c >= 0x7F) {
                char hex[8];
                snprintf(hex, sizeof hex, "\\x%02x", c);
                out += hex;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    return out;
}

std::string unescape(const std::string& s)
{
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '\\' || i + 1 == s.size()) {
            out += s[i];
            continue;
        }
        char c = s[++i];
        switch (c) {
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case '0': out += '\0'; break;
        case 'x':
            if (i + 2 < s.size() && isxdigit(static_cast<unsigned char>(s[i + 1])) &&
                isxdigit(static_cast<unsigned char>(s[i + 2]))) {
                out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16));
                i += 2;
            } else {
                out += "\\x";
            }
            break;
        default: out += c; break;
        }
    }
    return out;
}


std::vector<std::string> split_tabs(const std::string& line)
{
    std::vector<std::string> fields;
    for (size_t start = 0;;) {
        size_t tab = line.find('\t', start);
        fields.push_back(line.substr(start, tab == std::string::npos ? std::string::npos : tab - start));
        if (tab == std::string::npos) return fields;
        start = tab + 1;
    }
}

bool decimal(const std::string& s)
{
    size_t i = !s.empty() && s[0] == '-';
    return i < s.size() && s.size() - i <= 9 && s.find_first_not_of("0123456789", i) == std::string::npos;
}

std::string problem(const std::string& line)
{
    for (size_t i = 0; i + 1 < line.size(); ++i) {
        if (line[i] != '\\') continue;
        if (line[++i] == 'x' && !(i + 2 < line.size() && isxdigit(static_cast<unsigned char>(line[i + 1])) &&
                                  isxdigit(static_cast<unsigned char>(line[i + 2]))))
            return "\\x needs two hex digits: " + line.substr(i - 1, 4);
    }
    std::vector<std::string> f = split_tabs(line);
    const std::string& kind = f[0];
    std::string blanks = line.find(' ') != std::string::npos ? " (fields are separated by TABs, not blanks)" : "";
    if (f.size() == 1 && !blanks.empty()) return "no TAB in the line: fields are separated by TABs, not blanks";
    if (kind == "reply") return f.size() >= 3 ? "" : "reply takes PREFIX and at least one TEXT" + blanks;
    if (kind == "silent") return f.size() == 2 ? "" : "silent takes PREFIX alone" + blanks;
    if (kind == "delay") {
        if (f.size() != 3) return "delay takes PREFIX and MS" + blanks;
        return decimal(f[2]) && f[2][0] != '-' ? "" : "delay MS is not a number of milliseconds: " + f[2];
    }
    if (kind == "set") {
        if (f.size() != 3) return "set takes KEY and VALUE" + blanks;
        if (std::find(model_keys.begin(), model_keys.end(), f[1]) == model_keys.end())
            return "set: no model value " + f[1] + " (Dolby_Atmos_Bit, Dolby_Surround_Bit, Audio_Format, FS, "
                   "DTS_DIALOG_BIT, tone_ms, music_ms)";
        return decimal(f[2]) ? "" : "set " + f[1] + ": not a decimal number: " + f[2];
    }
    return "unknown kind \"" + kind.substr(0, kind.find(' ')) + "\" (reply, silent, delay or set)" + blanks;
}

}  // namespace dsp_rules
