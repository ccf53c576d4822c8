// A stand-in for the engine and the updater: a program that is copied under whatever name a test needs.
// PROGRAM.role beside it tells what to do, in words: the name of the event that ends the test, the ID of
// the test's process, a role and its number. Every start adds a line to PROGRAM.started once the role is
// taken up: process ID, working folder, command line and show state, with tabs between.
#include <winsock2.h>
// windows.h must come after winsock2.h.
#include <windows.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "tests/support/fake_engine.h"

namespace kesto {
namespace {

constexpr DWORD kLongestLifeMs = 60'000;  // when all else fails

void RecordStart(const std::string& program) {
    char folder[MAX_PATH] = "";
    GetCurrentDirectoryA(sizeof folder, folder);
    STARTUPINFOA startup;
    GetStartupInfoA(&startup);
    const bool hidden = (startup.dwFlags & STARTF_USESHOWWINDOW) != 0 && startup.wShowWindow == SW_HIDE;
    std::ostringstream line;
    line << GetCurrentProcessId() << '\t' << folder << '\t' << GetCommandLineA() << '\t'
         << (hidden ? "hidden" : "shown") << '\n';
    std::ofstream(program + ".started", std::ios::app) << line.str();
}

// Leaves everyone only these rights to this process.
void AllowOnly(DWORD rights) {
    SID_IDENTIFIER_AUTHORITY world = SECURITY_WORLD_SID_AUTHORITY;
    PSID everyone = nullptr;
    AllocateAndInitializeSid(&world, 1, SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0, &everyone);
    alignas(ACL) char list[256];
    ACL* const acl = reinterpret_cast<ACL*>(list);
    InitializeAcl(acl, sizeof list, ACL_REVISION);
    AddAccessAllowedAce(acl, ACL_REVISION, rights, everyone);
    SECURITY_DESCRIPTOR descriptor;
    InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(&descriptor, TRUE, acl, FALSE);
    SetKernelObjectSecurity(GetCurrentProcess(), DACL_SECURITY_INFORMATION, &descriptor);
    FreeSid(everyone);
}

DWORD Play(const std::string& program) {
    std::string end_name, role;
    DWORD test_process = 0, number = 0;
    std::ifstream(program + ".role") >> end_name >> test_process >> role >> number;
    const HANDLE end = OpenEventA(SYNCHRONIZE, FALSE, end_name.c_str());
    const HANDLE test = OpenProcess(SYNCHRONIZE, FALSE, test_process);
    const HANDLE release = OpenEventA(SYNCHRONIZE, FALSE, (end_name + "_release").c_str());
    if (end == nullptr || test == nullptr || release == nullptr) {
        return 99;
    }

    std::unique_ptr<FakeEngine> engine;
    if (role == "rights") {
        AllowOnly(number);
    }
    if (role == "listen") {
        engine =
            std::make_unique<FakeEngine>(EngineScript{.keeps_record = false}, static_cast<uint16_t>(number));
        if (engine->port() == 0) {
            return 98;
        }
    }
    RecordStart(program);
    if (role == "exit") {
        return number;
    }
    const HANDLE ends[] = {end, test, release};
    const DWORD count = role == "release" ? 3 : 2;
    return WaitForMultipleObjects(count, ends, FALSE, kLongestLifeMs) == WAIT_OBJECT_0 + 2 ? number : 0;
}

}  // namespace
}  // namespace kesto

int main() {
    char path[MAX_PATH];
    const std::string program(path, GetModuleFileNameA(nullptr, path, sizeof path));
    return static_cast<int>(kesto::Play(program));
}
