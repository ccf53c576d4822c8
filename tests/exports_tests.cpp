// The library as the loader of its host sees it.
#include <map>
#include <sstream>

#include "tests/support/fake_system.h"

namespace kesto {
namespace {

struct StackCall {
    uint32_t result;
    int32_t bytes_left;  // bytes of the arguments that are still on the stack after the return
};

// Calls with the stack `misalignment` bytes below a multiple of 16 before the arguments are pushed.
[[gnu::noinline]] StackCall CallOnStack(FARPROC routine, const uint32_t* arguments, size_t count,
                                        uint32_t misalignment) {
    int32_t bytes_left;
    asm volatile(
        "movl %%esp, %%esi; andl $-16, %%esp; subl %%eax, %%esp; movl %%esp, %%ebx;"
        "1: testl %%ecx, %%ecx; jz 2f; decl %%ecx; pushl (%%edx, %%ecx, 4); jmp 1b;"
        "2: call *%%edi; subl %%esp, %%ebx; movl %%esi, %%esp"
        : "+a"(misalignment), "=b"(bytes_left), "+c"(count), "+d"(arguments)
        : "D"(routine)
        : "esi", "memory", "cc");
    return {misalignment, bytes_left};
}

struct Called {
    std::string routine;  // its decorated name, with the size of the arguments
    // When all arguments are 0 and calls are in the order of the ordinals; "-" for nothing.
    std::string returns;
};

// All names in the order of their ordinals. Each routine but one has an upper-case name, too.
std::map<std::string, Called> AllNames() {
    std::istringstream routines(
        "_CheckLicence@8 0 1 _CloseInstance@4 - - _CloseScanner@0 - - _DoSimpleUpdate@8 0 1 _DoUpdate@16 1 1 "
        "_GetErrorText@12 - - _GetExpiry2@20 1 1 _GetExpiry@12 1 1 _GetVersionDetails@8 - - "
        "_InitializeInstance@4 0 0 _InitializeScanner@20 87 87 _IsFatalError@4 0 0 "
        "_ProcessWindowsMessage@12 0 0 _ReloadScanner@0 1 1 _ScanFile@24 0 0 _UnloadScanner@0 1 1");
    std::map<std::string, Called> names;
    for (std::string name, first, second; routines >> name >> first >> second;) {
        std::string upper = name.substr(1, name.find('@') - 1);
        std::transform(upper.begin(), upper.end(), upper.begin(), toupper);
        names[upper] = {name, first};
        names[name] = {name, second};
    }
    names.erase("GETEXPIRY2");
    return names;
}

class ExportsTest : public PluginTest {
 protected:
    FARPROC Named(const char* name) const {
        return GetProcAddress(static_cast<HMODULE>(plugin.module), name);
    }
};

TEST_F(ExportsTest, StandAtTheirOrdinalsRefuseNothingsAndRemoveTheirArguments) {
    const uint32_t nothings[6] = {};
    uint32_t misalignment = 0;
    WORD ordinal = 0;
    for (const auto& [name, called] : AllNames()) {
        const FARPROC routine = Named(name.c_str());
        ASSERT_NE(routine, nullptr) << name;
        EXPECT_EQ(Named(MAKEINTRESOURCEA(++ordinal)), routine) << name;
        EXPECT_EQ(Named(called.routine.c_str()), routine) << name;
        const size_t bytes = std::stoul(called.routine.substr(called.routine.find('@') + 1));
        const StackCall call = CallOnStack(routine, nothings, bytes / 4, misalignment);
        misalignment = (misalignment + 4) % 16;
        EXPECT_EQ(call.bytes_left, 0) << name;
        EXPECT_TRUE(called.returns == "-" || called.returns == std::to_string(call.result)) << name;
    }
    EXPECT_EQ(ordinal, 31);
    EXPECT_EQ(Named("_UnloadScanner@0"), Named("_ReloadScanner@0"));
}

TEST_F(ExportsTest, LibraryIsRelocatableAndGuardedAndShowsItsVersion) {
    const char* const base = static_cast<const char*>(plugin.module);
    const auto& headers = *reinterpret_cast<const IMAGE_NT_HEADERS32*>(
        base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
    EXPECT_EQ(headers.FileHeader.Machine, IMAGE_FILE_MACHINE_I386);
    constexpr WORD kGuards = IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE | IMAGE_DLLCHARACTERISTICS_NX_COMPAT;
    EXPECT_EQ(headers.OptionalHeader.DllCharacteristics & kGuards, kGuards);
    // Without relocations, the first of these marks would mean nothing.
    EXPECT_NE(headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_BASERELOC].Size, 0u);

    // The signature and the version of the layout, then the version of the file, 1.0.4.0.
    EXPECT_THAT(ReadFile(installed.folder / "CLAMDLL.dll"),
                testing::HasSubstr(std::string("\xBD\x04\xEF\xFE\0\0\1\0\0\0\1\0\0\0\4\0", 16)));
}

}  // namespace
}  // namespace kesto
