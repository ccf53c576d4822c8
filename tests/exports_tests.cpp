// The library as the loader of its host sees it.
#include <map>
#include <sstream>

#include "tests/support/fake_system.h"

namespace {

using namespace kesto;

// Calls with so many zeros as arguments, and the stack `misalignment` bytes below a multiple of 16 before
// they are pushed. `bytes_left` is how many bytes of them are still on the stack after the return.
[[gnu::noinline]] uint32_t CallOnStack(FARPROC routine, size_t count, uint32_t misalignment,
                                       int32_t& bytes_left) {
    asm volatile(
        "movl %%esp, %%esi; andl $-16, %%esp; subl %%eax, %%esp; movl %%esp, %%ebx;"
        "1: testl %%ecx, %%ecx; jz 2f; decl %%ecx; pushl $0; jmp 1b;"
        "2: call *%%edi; subl %%esp, %%ebx; movl %%esi, %%esp"
        : "+a"(misalignment), "=b"(bytes_left), "+c"(count)
        : "D"(routine)
        : "edx", "esi", "memory", "cc");
    return misalignment;
}

using ExportsTest = PluginTest;

TEST_F(ExportsTest, StandAtTheirOrdinalsRefuseNothingsAndRemoveTheirArguments) {
    // What the upper-case and then the decorated name returns, when all arguments are 0 and calls are in the
    // order of the ordinals; "-" for nothing. The decoration is the size of the arguments.
    std::istringstream routines(
        "_CheckLicence@8 0 1 _CloseInstance@4 - - _CloseScanner@0 - - _DoSimpleUpdate@8 0 1 _DoUpdate@16 1 1 "
        "_GetErrorText@12 - - _GetExpiry2@20 1 1 _GetExpiry@12 1 1 _GetVersionDetails@8 - - "
        "_InitializeInstance@4 0 0 _InitializeScanner@20 87 87 _IsFatalError@4 0 0 "
        "_ProcessWindowsMessage@12 0 0 _ReloadScanner@0 1 1 _ScanFile@24 0 0 _UnloadScanner@0 1 1");
    std::map<std::string, std::pair<std::string, std::string>> names;  // in the order of their ordinals
    for (std::string name, first, second; routines >> name >> first >> second;) {
        std::string upper = name.substr(1, name.find('@') - 1);
        std::transform(upper.begin(), upper.end(), upper.begin(), toupper);
        names[upper] = {name, first};
        names[name] = {name, second};
    }
    names.erase("GETEXPIRY2");

    const auto named = [this](const char* name) {
        return GetProcAddress(static_cast<HMODULE>(plugin.module), name);
    };
    WORD ordinal = 0;
    for (const auto& [name, called] : names) {
        const auto& [decorated, returns] = called;
        SCOPED_TRACE(name);
        const FARPROC routine = named(name.c_str());
        ASSERT_NE(routine, nullptr);
        EXPECT_EQ(named(MAKEINTRESOURCEA(++ordinal)), routine);
        EXPECT_EQ(named(decorated.c_str()), routine);
        const size_t bytes = std::stoul(decorated.substr(decorated.find('@') + 1));
        int32_t bytes_left;
        const uint32_t returned = CallOnStack(routine, bytes / 4, ordinal % 4 * 4, bytes_left);
        EXPECT_EQ(bytes_left, 0);
        EXPECT_TRUE(returns == "-" || returns == std::to_string(returned)) << returned;
    }
    EXPECT_EQ(ordinal, 31);
    EXPECT_EQ(named("_UnloadScanner@0"), named("_ReloadScanner@0"));

    // The signature and the version of the layout, then the version of the file, 1.0.4.0.
    EXPECT_THAT(ReadFile(installed.folder / "CLAMDLL.dll"),
                testing::HasSubstr(std::string("\xBD\x04\xEF\xFE\0\0\1\0\0\0\1\0\0\0\4\0", 16)));
}

// A process has 1088 thread slots. The list is so long that losing one at each load shows.
TEST(Exports, LosesNothingByLoadingThePlugIn1300Times) {
    Installation installed;
    installed.WriteSettings("autostart=0\nservers=a" + std::string(50, ' ') + "b");
    ExpectNothingLost(1300, [&] { EXPECT_EQ(LoadedPlugin(installed).Initialize(installed.folder), 0); });
}

}  // namespace
