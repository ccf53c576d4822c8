#pragma once

#include <string>
#include <string_view>

// The program's texts are UTF-8, paths are UTF-16, and the plug-in speaks the system's ANSI code page.
// No conversion fails: what cannot be converted becomes a replacement character.
namespace kesto {

std::string Utf8FromWide(std::wstring_view wide);
std::wstring WideFromUtf8(std::string_view utf8);
std::string Utf8FromAnsi(std::string_view ansi);
std::wstring WideFromAnsi(std::string_view ansi);

// With `lossy` given, tells there whether a character had no place in the code page.
std::string AnsiFromWide(std::wstring_view wide, bool* lossy = nullptr);

// Text of a file of unknown making: UTF-16 or UTF-8 by its byte order mark, else UTF-8 where it is that, else
// the code page in which the command shell writes files.
std::wstring WideFromFile(std::string_view bytes);

// Control characters become '?', so that a name from outside cannot break a line or drive a terminal.
std::string Printable(std::string_view text);

// The same line by line.
std::string PrintableLines(std::string_view text);

}  // namespace kesto
