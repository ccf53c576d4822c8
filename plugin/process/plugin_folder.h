// The folder that the host gave us at start-up, and the engine folder below it.
#pragma once

#include "base/bounded_text.h"

namespace kesto {

// Keeps a copy of `folder`, cut at kPathSize - 1 characters: the host may free its own.
void SetPluginFolder(const char* folder);

// Owned here; an empty text before start-up.
const char* PluginFolder();

// Formats "FOLDER\plugins\kestoav", where the engine, the updater and the signatures lie. False before the
// host has given a folder: that would be the root of the current drive, where anybody may have put a program.
bool FormatEngineFolder(char (&folder)[kMessageSize]);

}  // namespace kesto
