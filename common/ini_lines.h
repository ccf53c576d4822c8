// The lines of a settings file, as every reader of such files takes them apart.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kesto {

enum class IniLineKind { kSection, kSetting, kWords };

// The views are into the text that was read.
struct IniLine {
    IniLineKind kind;
    size_t number;           // from 1
    std::string_view text;   // all of it, without the blanks around it
    std::string name;        // of the section, without its brackets, or the key; in lower case
    std::string_view value;  // of a setting, without the blanks and one pair of quotes around it
    bool closed = true;      // the section's name ends with ], and nothing but a comment follows
};

struct IniText {
    std::vector<IniLine> lines;    // without those that are empty or a comment
    bool has_nul = false;          // it is not ANSI text; there are no lines then
    bool mark_hides_line = false;  // a UTF-8 byte order mark stands in front of what is no comment
    bool bare_returns = false;     // a line ends with a carriage return alone
};

IniText ReadIniText(std::string_view text);

std::string_view TrimmedIni(std::string_view text);
std::string LowerAscii(std::string_view text);

}  // namespace kesto
