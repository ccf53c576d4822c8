#include "tests/support/plugin_host.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <stdexcept>

namespace kesto {

LoadedPlugin::LoadedPlugin(const Installation& installed) {
    if (const Fault fault = LoadPlugin((installed.folder / "CLAMDLL.dll").wstring(), *this)) {
        throw std::runtime_error(fault.text);
    }
}

int32_t LoadedPlugin::Initialize(const std::filesystem::path& folder) const {
    return initialize_scanner(1, nullptr, nullptr, nullptr, folder.string().c_str());
}

std::string LoadedPlugin::VersionDetails() const {
    std::string text(4096, '\x5E');
    get_version_details(text.data(), static_cast<uint32_t>(text.size()));
    return text.back() == '\x5E' ? text.c_str() : "the buffer's last byte was written";
}

std::string InstalledPlugin::Scan(std::string_view data, std::string_view name) const {
    ScanFileInput input = {"", static_cast<uint32_t>(data.size()),
                           reinterpret_cast<const uint8_t*>(data.data())};
    name.copy(input.name, sizeof input.name);
    const std::string untouched(kDetectionSize + 16, '\x5E');  // with guard bytes behind it
    std::string detection = untouched;
    ScanFileResult result = {kUntouched, kUntouched, detection.data()};
    uint32_t error = kUntouched;
    const int32_t returned = plugin.scan_file(1, &input, &result, &error, 2, 3);
    const bool written = result.infected != kUntouched || detection != untouched;
    if (returned != (error == kUntouched ? 1 : 0) || result.reserved != kUntouched ||
        (written && (returned == 0 || result.infected != 1)) ||
        !detection.ends_with(untouched.substr(kDetectionSize))) {
        return "the host's words and fields do not fit each other";
    }
    return returned == 0 ? "failed " + std::to_string(error)
           : written     ? detection.data() + kDetectionFileName + std::string(": ") +
                           (detection.data() + kDetectionVirusName)
                     : "clean";
}

void ExpectNothingLost(int rounds, const std::function<void()>& fault) {
    fault();
    int handles = 0;
    int64_t bytes = 0;
    const auto add_holdings = [&](int sign) {
        // On Windows GetProcessHandleCount would do; elsewhere it returns 0.
        for (uintptr_t handle = 4; handle < 16384; handle += 4) {
            DWORD flags;
            handles += sign * GetHandleInformation(reinterpret_cast<HANDLE>(handle), &flags);
        }
        _HEAPINFO block = {};
        while (_heapwalk(&block) == _HEAPOK) {
            bytes += block._useflag == _USEDENTRY ? sign * static_cast<int64_t>(block._size) : 0;
        }
    };
    add_holdings(-1);
    for (int round = 0; round < rounds; ++round) {
        fault();
    }
    add_holdings(1);
    EXPECT_LT(handles, rounds);
    // With its heap checks on, Wine keeps freed blocks for a while, and they count as in use.
    if (getenv("KESTOAV_TEST_HEAP_CHECKED") == nullptr) {
        EXPECT_LT(bytes, rounds * 64);
    }
}

}  // namespace kesto
