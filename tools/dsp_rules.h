// The escapes of dsp_sim's rules file, shared by dsp_sim and whoever writes
// rules for it: \n \r \t \\ \0 and \xHH for any other control or non-ASCII byte.
#pragma once
#include <cctype>
#include <cstdio>
#include <string>

namespace dsp_rules {

inline std::string escape(const std::string& s)
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

inline std::string unescape(const std::string& s)
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

}  // namespace dsp_rules
