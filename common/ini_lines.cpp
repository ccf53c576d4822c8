#include "common/ini_lines.h"

#include <algorithm>

namespace kesto {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kBlanks = " \t\v\f";

bool IsComment(std::string_view text) {
    return text.empty() || text[0] == ';' || text[0] == '#';
}

// One pair of quotes around a value is not a part of it.
std::string_view Unquoted(std::string_view value) {
    const bool quoted =
        value.size() >= 2 && (value[0] == '"' || value[0] == '\'') && value.back() == value[0];
    return quoted ? value.substr(1, value.size() - 2) : value;
}

IniLine TakenApart(std::string_view text, size_t number) {
    const size_t equals = text.find('=');
    if (text[0] == '[') {
        const size_t end = std::min(text.find(']'), text.size());
        const bool closed = end < text.size() && IsComment(TrimmedIni(text.substr(end + 1)));
        return {IniLineKind::kSection, number, text, LowerAscii(text.substr(1, end - 1)), {}, closed};
    }
    if (equals == std::string_view::npos) {
        return {IniLineKind::kWords, number, text, "", {}};
    }
    return {IniLineKind::kSetting, number, text, LowerAscii(TrimmedIni(text.substr(0, equals))),
            Unquoted(TrimmedIni(text.substr(equals + 1)))};
}

}  // namespace

std::string_view TrimmedIni(std::string_view text) {
    const size_t first = text.find_first_not_of(kBlanks);
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string LowerAscii(std::string_view text) {
    std::string lower(text);
    std::transform(text.begin(), text.end(), lower.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return lower;
}

IniText ReadIniText(std::string_view text) {
    IniText ini;
    ini.has_nul = text.find('\0') != std::string_view::npos;
    if (ini.has_nul) {
        return ini;
    }
    const bool marked = text.starts_with(kByteOrderMark);
    text.remove_prefix(marked ? kByteOrderMark.size() : 0);
    for (size_t number = 1; !text.empty(); ++number) {
        const size_t end = std::min(text.find_first_of("\r\n"), text.size());
        const std::string_view line = TrimmedIni(text.substr(0, end));
        text.remove_prefix(end);
        ini.bare_returns = ini.bare_returns || (text.starts_with('\r') && !text.starts_with("\r\n"));
        text.remove_prefix(text.starts_with("\r\n") ? 2 : std::min<size_t>(1, text.size()));
        if (!IsComment(line)) {
            ini.mark_hides_line = ini.mark_hides_line || (marked && number == 1);
            ini.lines.push_back(TakenApart(line, number));
        }
    }
    return ini;
}

}  // namespace kesto
