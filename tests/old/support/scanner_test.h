// The fixture of the tests that run a started plug-in.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/fake_engine.h"
// windows.h, in what follows, must come after winsock2.h.
#include "tests/support/plugin_folder.h"
#include "tests/support/plugin_library.h"

namespace kesto {

// A "servers" line that names these ports of 127.0.0.1 in order.
template <class... Ports>
std::string Servers(Ports... ports) {
    std::string line = "servers=";
    ((line += "127.0.0.1:" + std::to_string(ports) + " "), ...);
    line.back() = '\n';
    return line;
}

class ScannerTest : public testing::Test {
 protected:
    // Writes the settings, starts the plug-in and, with autostart on, waits for the engine program.
    int32_t Start(const std::string& settings) {
        plugin.CloseScanner();  // a second start lets go of an open log without closing it
        folder.WriteSettings(settings);
        const int32_t status = plugin.InitializeScanner(1, nullptr, nullptr, nullptr, folder.path().c_str());
        if (status == 0 && settings.find("autostart=0") == std::string::npos) {
            EXPECT_TRUE(folder.WaitForStarts(folder.engine_program(), 1));
        }
        return status;
    }

    // The same with a log and an engine process that only exists.
    void StartWithIdleEngine(const std::string& settings) {
        folder.CreateLog();
        folder.PlaceEngine("wait");
        ASSERT_EQ(Start(settings), 0);
    }

    ScanOutcome Scan(std::string_view data, std::string_view name = "mail.eml") const {
        return ScanWith(plugin, data, name);
    }

    PluginFolder folder;
    PluginLibrary plugin;
};

}  // namespace kesto
