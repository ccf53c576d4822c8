// The program's texts are UTF-8, paths are UTF-16, and the plug-in speaks the system's ANSI code page.
// No conversion fails: what cannot be converted becomes a replacement character.
#pragma once

#include <string>
#include <string_view>

namespace kesto {

std::string Utf8FromWide(std::wstring_view wide);
std::wstring WideFromUtf8(std::string_view utf8);
std::string Utf8FromAnsi(std::string_view ansi);
std::wstring WideFromAnsi(std::string_view ansi);
std::string AnsiFromWide(std::wstring_view wide);

// Text of a file that any program may have written: UTF-16 or UTF-8 by its byte order mark, otherwise UTF-8
// if it is valid, otherwise the code page in which the command shell writes files.
std::wstring WideFromFile(std::string_view bytes);

// Control characters become '?', so that a name from outside cannot break a line or control a terminal.
std::string Printable(std::string_view text);

// The same line by line.
std::string PrintableLines(std::string_view text);

}  // namespace kesto
