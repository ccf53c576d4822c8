// The library as its host's loader sees it.
#include <set>
#include <string>
#include <vector>

#include "tests/support/fake_system.h"

namespace kesto {
namespace {

struct StackCall {
    uint32_t result;
    int32_t bytes_left;  // of the arguments, on the stack after the return
};

// Calls with the stack `misalignment` bytes below a multiple of 16 before the arguments are pushed.
[[gnu::noinline]] StackCall CallOnStack(FARPROC routine, const uint32_t* arguments, size_t count,
                                        uint32_t misalignment) {
    int32_t bytes_left;
    asm volatile(
        "movl %%esp, %%esi\n\t"
        "andl $-16, %%esp\n\t"
        "subl %%eax, %%esp\n\t"
        "movl %%esp, %%ebx\n"
        "1:\t"
        "testl %%ecx, %%ecx\n\t"
        "jz 2f\n\t"
        "decl %%ecx\n\t"
        "pushl (%%edx, %%ecx, 4)\n\t"
        "jmp 1b\n"
        "2:\t"
        "call *%%edi\n\t"
        "subl %%esp, %%ebx\n\t"
        "movl %%esi, %%esp"
        : "+a"(misalignment), "=b"(bytes_left), "+c"(count), "+d"(arguments)
        : "D"(routine)
        : "esi", "memory", "cc");
    return {misalignment, bytes_left};
}

// In the order of their ordinals, from 1.
const struct {
    const char* name;
    size_t arguments;
    int same_as;      // ordinal of the upper-case name; 0 for that name itself
    int64_t returns;  // for arguments of 0, called in this order; -1: nothing
} kExports[] = {
    {"CHECKLICENCE", 2, 0, 0},
    {"CLOSEINSTANCE", 1, 0, -1},
    {"CLOSESCANNER", 0, 0, -1},
    {"DOSIMPLEUPDATE", 2, 0, 0},
    {"DOUPDATE", 4, 0, 1},
    {"GETERRORTEXT", 3, 0, -1},
    {"GETEXPIRY", 3, 0, 1},
    {"GETVERSIONDETAILS", 2, 0, -1},
    {"INITIALIZEINSTANCE", 1, 0, 0},
    {"INITIALIZESCANNER", 5, 0, ERROR_INVALID_PARAMETER},
    {"ISFATALERROR", 1, 0, 0},
    {"PROCESSWINDOWSMESSAGE", 3, 0, 0},
    {"RELOADSCANNER", 0, 0, 1},
    {"SCANFILE", 6, 0, 0},
    {"UNLOADSCANNER", 0, 13, 1},
    {"_CheckLicence@8", 2, 1, 1},
    {"_CloseInstance@4", 1, 2, -1},
    {"_CloseScanner@0", 0, 3, -1},
    {"_DoSimpleUpdate@8", 2, 4, 1},
    {"_DoUpdate@16", 4, 5, 1},
    {"_GetErrorText@12", 3, 6, -1},
    {"_GetExpiry2@20", 5, 0, 1},
    {"_GetExpiry@12", 3, 7, 1},
    {"_GetVersionDetails@8", 2, 8, -1},
    {"_InitializeInstance@4", 1, 9, 0},
    {"_InitializeScanner@20", 5, 10, ERROR_INVALID_PARAMETER},
    {"_IsFatalError@4", 1, 11, 0},
    {"_ProcessWindowsMessage@12", 3, 12, 0},
    {"_ReloadScanner@0", 0, 13, 1},
    {"_ScanFile@24", 6, 14, 0},
    {"_UnloadScanner@0", 0, 13, 1},
};

class ExportsTest : public PluginTest {
 protected:
    FARPROC Named(const char* name) const {
        return GetProcAddress(static_cast<HMODULE>(plugin.module), name);
    }
    FARPROC Ordinal(size_t ordinal) const { return Named(reinterpret_cast<const char*>(ordinal)); }
    template <class T>
    const T* At(DWORD offset) const {
        return reinterpret_cast<const T*>(static_cast<const char*>(plugin.module) + offset);
    }
    const IMAGE_NT_HEADERS32& Headers() const {
        return *At<IMAGE_NT_HEADERS32>(static_cast<DWORD>(At<IMAGE_DOS_HEADER>(0)->e_lfanew));
    }
    const IMAGE_DATA_DIRECTORY& Directory(size_t index) const {
        return Headers().OptionalHeader.DataDirectory[index];
    }
};

TEST_F(ExportsTest, NamesOrdinalsAndAddressesAreTheHosts) {
    const auto& directory =
        *At<IMAGE_EXPORT_DIRECTORY>(Directory(IMAGE_DIRECTORY_ENTRY_EXPORT).VirtualAddress);
    EXPECT_STREQ(At<char>(directory.Name), "CLAMDLL.dll");
    EXPECT_EQ(directory.Base, 1u);
    EXPECT_EQ(directory.NumberOfFunctions, std::size(kExports));
    ASSERT_EQ(directory.NumberOfNames, std::size(kExports));
    for (size_t i = 0; i < std::size(kExports); ++i) {
        const auto& expected = kExports[i];
        EXPECT_STREQ(At<char>(At<DWORD>(directory.AddressOfNames)[i]), expected.name);
        EXPECT_EQ(At<WORD>(directory.AddressOfNameOrdinals)[i], i) << expected.name;
        EXPECT_EQ(Ordinal(i + 1), Named(expected.name));
        if (expected.same_as != 0) {
            EXPECT_EQ(Ordinal(i + 1), Ordinal(static_cast<size_t>(expected.same_as))) << expected.name;
        }
    }
}

TEST_F(ExportsTest, RefuseNothingsAndRemoveTheirArguments) {
    const uint32_t nothings[6] = {};
    for (const auto& each : kExports) {
        const StackCall call = CallOnStack(Named(each.name), nothings, each.arguments, 0);
        EXPECT_EQ(call.bytes_left, 0) << each.name;
        if (each.returns >= 0) {
            EXPECT_EQ(call.result, each.returns) << each.name;
        }
    }
}

TEST_F(ExportsTest, LibraryIsRelocatableAndGuardedAndShowsItsVersion) {
    const IMAGE_NT_HEADERS32& headers = Headers();
    EXPECT_EQ(headers.FileHeader.Machine, IMAGE_FILE_MACHINE_I386);
    constexpr WORD kGuards = IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE | IMAGE_DLLCHARACTERISTICS_NX_COMPAT;
    EXPECT_EQ(headers.OptionalHeader.DllCharacteristics & kGuards, kGuards);
    EXPECT_NE(Directory(IMAGE_DIRECTORY_ENTRY_BASERELOC).Size, 0u);  // without it the first mark is empty

    const std::string path = (installed.folder / "CLAMDLL.dll").string();
    std::vector<char> resource(GetFileVersionInfoSizeA(path.c_str(), nullptr));
    ASSERT_TRUE(GetFileVersionInfoA(path.c_str(), 0, static_cast<DWORD>(resource.size()), resource.data()));
    VS_FIXEDFILEINFO* version;
    UINT size;
    ASSERT_TRUE(VerQueryValueA(resource.data(), "\\", reinterpret_cast<void**>(&version), &size));
    EXPECT_EQ(version->dwFileVersionMS, 1u << 16 | 0u);
    EXPECT_EQ(version->dwFileVersionLS, 4u << 16 | 0u);
}

TEST_F(ExportsTest, RunOnAnyStackThatIsAlignedToFourBytes) {
    ScriptedEngine engine(Replying("stream: Odd FOUND"));
    installed.WriteSettings(Servers(engine.Port()));
    const std::string data(100'001, 'x'), folder = installed.folder.string();
    for (uint32_t misalignment = 0; misalignment < 16; misalignment += 4) {
        const auto call = [&](const char* name, std::vector<uint32_t> arguments) {
            return CallOnStack(Named(name), arguments.data(), arguments.size(), misalignment).result;
        };
        const auto address = [](const void* of) {
            return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(of));
        };
        ScanFileInput input{"odd", static_cast<uint32_t>(data.size()),
                            reinterpret_cast<const uint8_t*>(data.data())};
        char detection[kDetectionSize] = "";
        ScanFileResult result{0, 0, detection};
        uint32_t error = 0;
        char text[64] = "";
        EXPECT_EQ(call("INITIALIZESCANNER", {1, 0, 0, 0, address(folder.c_str())}), 0u);
        EXPECT_EQ(call("SCANFILE", {0, address(&input), address(&result), address(&error), 0, 0}), 1u);
        EXPECT_STREQ(detection + kDetectionVirusName, "Odd") << misalignment;
        call("GETVERSIONDETAILS", {address(text), sizeof text});
        EXPECT_STREQ(text, "KESTOAV Version 1.0.4\nstream: Odd FOUND");
        call("CLOSESCANNER", {});
    }
}

}  // namespace
}  // namespace kesto
