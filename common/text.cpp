#include "common/text.h"

#include <windows.h>

#include <algorithm>
#include <cstring>

namespace kesto {
namespace {

std::string Narrow(UINT code_page, std::wstring_view wide) {
    const int length = static_cast<int>(wide.size());
    const int size = WideCharToMultiByte(code_page, 0, wide.data(), length, nullptr, 0, nullptr, nullptr);
    std::string text(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(code_page, 0, wide.data(), length, text.data(), size, nullptr, nullptr);
    return text;
}

std::wstring Widen(UINT code_page, std::string_view narrow) {
    const int length = static_cast<int>(narrow.size());
    const int size = MultiByteToWideChar(code_page, 0, narrow.data(), length, nullptr, 0);
    std::wstring text(static_cast<size_t>(size), L'\0');
    MultiByteToWideChar(code_page, 0, narrow.data(), length, text.data(), size);
    return text;
}

}  // namespace

std::string Utf8FromWide(std::wstring_view wide) {
    return Narrow(CP_UTF8, wide);
}

std::wstring WideFromUtf8(std::string_view utf8) {
    return Widen(CP_UTF8, utf8);
}

std::wstring WideFromAnsi(std::string_view ansi) {
    return Widen(CP_ACP, ansi);
}

std::string Utf8FromAnsi(std::string_view ansi) {
    return Utf8FromWide(WideFromAnsi(ansi));
}

std::string AnsiFromWide(std::wstring_view wide) {
    return Narrow(CP_ACP, wide);
}

std::wstring WideFromFile(std::string_view bytes) {
    if (bytes.starts_with("\xFF\xFE")) {
        std::wstring wide((bytes.size() - 2) / sizeof(wchar_t), L'\0');
        std::memcpy(wide.data(), bytes.data() + 2, wide.size() * sizeof(wchar_t));
        return wide;
    }
    if (bytes.starts_with("\xEF\xBB\xBF")) {
        return WideFromUtf8(bytes.substr(3));
    }
    const bool is_utf8 = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, bytes.data(),
                                             static_cast<int>(bytes.size()), nullptr, 0) != 0;
    return Widen(is_utf8 ? CP_UTF8 : CP_OEMCP, bytes);
}

std::string PrintableLines(std::string_view text) {
    std::string printable(text);
    std::replace_if(
        printable.begin(), printable.end(),
        [](unsigned char c) { return (c < 0x20 && c != '\n') || c == 0x7f; }, '?');
    return printable;
}

std::string Printable(std::string_view text) {
    std::string printable = PrintableLines(text);
    std::replace(printable.begin(), printable.end(), '\n', '?');
    return printable;
}

}  // namespace kesto
