// What a guard (kestoav.exe), its worker (kestobridge.exe) and kestoscan know of each other. The orders
// themselves are in worker_orders.h.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace kesto {

inline constexpr wchar_t kWorkerProgram[] = L"kestobridge.exe";

// Exit codes of a worker that has logged why it ends: it cannot follow its settings, or the system does not
// let it have the guard's socket.
inline constexpr uint32_t kCannotFollow = 78;
inline constexpr uint32_t kCannotTakeOver = 79;

// The guard's answer on its pipe when a restart that was asked for, by connecting, has succeeded. Any other
// answer tells why it has not.
inline constexpr char kRestarted[] = "restarted";

// A new worker that is started beside another one has this long to serve; otherwise it is ended.
inline constexpr std::chrono::seconds kLongestStart{10};
// A worker that gives no sign of life for this long is ended, so that the plug-in's scans wait for another
// one before they are given up.
inline constexpr std::chrono::seconds kLongestSilence{15};
// In this time the guard answers who asks for a restart: a worker that was starting already has served or was
// ended, the new one serves, and the former one has shown that it accepts nobody any more, or was ended.
inline constexpr std::chrono::seconds kLongestRestart =
    kLongestStart + 2 * kLongestSilence + std::chrono::seconds(5);

// The pipe of the guard in this folder, however the folder's path is written.
std::wstring GuardPipe(const std::wstring& program_folder);

}  // namespace kesto
