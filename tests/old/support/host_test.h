// The fixture of the tests that run kestoscan.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "host/check/test_samples.h"
#include "tests/support/fake_engine.h"
// windows.h, in what follows, must come after winsock2.h.
#include "tests/support/kestoscan_run.h"
#include "tests/support/plugin_folder.h"

namespace kesto {

// An engine that reads: finds VIRUS and the EICAR test string, does not understand GARBLE.
inline EngineScript Reader(bool shifted = true,
                           const std::string& version = "Engine 1/27000/Thu Jan  1 00:00:00 2015") {
    EngineScript script;
    script.answer = [=](const Conversation& conversation) {
        if (conversation.command == "zPING") {
            return WithNul("PONG");
        }
        if (conversation.command == "zVERSION") {
            return WithNul(version);
        }
        std::string data = conversation.data;
        for (char& c : data) {
            c = static_cast<char>(c + (shifted ? 1 : 0));
        }
        if (data.find("GARBLE") != std::string::npos) {
            return WithNul("what?");
        }
        const bool infected = data == EicarTestString() || data.find("VIRUS") != std::string::npos;
        return WithNul(infected ? "stream: Test.Virus FOUND" : "stream: OK");
    };
    return script;
}

inline std::vector<std::string> Lines(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

class HostTest : public testing::Test {
 protected:
    // Settings for `engine`, with limits so short that no test waits.
    void Configure(uint16_t port, const std::string& more = "") const {
        folder.WriteSettings("servers=127.0.0.1:" + std::to_string(port) +
                             "\r\nconnectwait=0\r\nstartwait=1\r\n" + more);
    }

    void Sample(const std::wstring& name, std::string_view content) const {
        const std::filesystem::path path = Samples() / name;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << content;
    }

    std::filesystem::path Samples() const { return std::filesystem::path(folder.parent()) / "samples"; }
    std::string SampleText(const std::string& name) const { return Samples().string() + "\\" + name; }

    // A sample as an argument.
    std::wstring Named(const std::wstring& name) const {
        return L" \"" + Samples().wstring() + L"\\" + name + L"\"";
    }
    std::wstring AllSamples() const { return L" \"" + Samples().wstring() + L"\""; }

    std::wstring FolderOption() const {
        return L" --folder \"" + std::filesystem::path(folder.path()).wstring() + L"\"";
    }

    RunResult Run(const std::wstring& arguments) const {
        return KestoscanRun(arguments + FolderOption()).Finish();
    }

    PluginFolder folder{"mail server"};
};

}  // namespace kesto
