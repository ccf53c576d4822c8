// The folder that the host names at start-up, and the engine folder below it.
#pragma once

#include "base/bounded_text.h"

namespace kesto {

// Keeps a copy of `folder`, cut at kPathSize - 1 characters: the host may free its own.
void SetPluginFolder(const char* folder);

// The copy; empty before start-up.
const char* PluginFolder();

// Formats "FOLDER\plugins\kestoav", where engine, updater and signatures are. False before the host has named
// a folder: the path would begin at the root of the current drive, where anybody may have put a program.
bool FormatEngineFolder(char (&folder)[kMessageSize]);

}  // namespace kesto
