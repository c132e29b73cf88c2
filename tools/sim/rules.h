// dsp_sim's rules file, shared by dsp_sim and whoever writes rules for it:
// the escapes (\n \r \t \\ \0 and \xHH for any other control or non-ASCII
// byte) and the check of a line.
#pragma once
#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace dsp_rules {

std::string escape(const std::string& s);
// The escapes undone; a \x without two hex digits is left as it stands
// (problem() refuses it in a rules line).
std::string unescape(const std::string& s);

// The values of dsp_sim's model that "set" takes.
inline constexpr std::array<std::string_view, 7> model_keys = {
    "Dolby_Atmos_Bit", "Dolby_Surround_Bit", "Audio_Format", "FS", "DTS_DIALOG_BIT", "tone_ms", "music_ms"};

std::vector<std::string> split_tabs(const std::string& line);
// A decimal number of at most 9 digits, optionally negative.
bool decimal(const std::string& s);
// Why a rules line is wrong, or nothing when it is right.
std::string problem(const std::string& line);

}  // namespace dsp_rules
