#include <windows.h>
// It needs windows.h before it.
#include <aclapi.h>

#include <algorithm>
#include <vector>

#include "common/text.h"
#include "host/check/checks.h"

namespace kesto::host {
namespace {

// With any of these a file can be replaced, something be put into a folder, or such a right be taken.
constexpr DWORD kWriting =
    FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_DELETE_CHILD | DELETE | WRITE_DAC | WRITE_OWNER;

struct Group {
    const char* name;
    std::vector<WELL_KNOWN_SID_TYPE> in;  // whoever is in this group is in all of these
};
const Group kGroups[] = {{"Everyone", {WinWorldSid}},
                         {"Authenticated Users", {WinWorldSid, WinAuthenticatedUserSid}},
                         {"Users", {WinWorldSid, WinAuthenticatedUserSid, WinBuiltinUsersSid}},
                         {"Guests", {WinWorldSid, WinBuiltinGuestsSid}}};

bool Holds(const Group& group, PSID sid) {
    return std::any_of(group.in.begin(), group.in.end(),
                       [sid](WELL_KNOWN_SID_TYPE known) { return IsWellKnownSid(sid, known) != FALSE; });
}

// The entries of a list of rights count in their order.
bool MayWrite(const Group& group, PACL list) {
    DWORD denied = 0;
    void* each = nullptr;
    for (DWORD i = 0; GetAce(list, i, &each); ++i) {
        auto* const entry = static_cast<ACCESS_ALLOWED_ACE*>(each);  // one that denies has the same members
        const unsigned type = entry->Header.AceType;
        GENERIC_MAPPING of_files = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE,
                                    FILE_ALL_ACCESS};
        if (type > ACCESS_DENIED_ACE_TYPE || (entry->Header.AceFlags & INHERIT_ONLY_ACE) != 0 ||
            !Holds(group, &entry->SidStart)) {
            continue;
        }
        MapGenericMask(&entry->Mask, &of_files);
        if (type == ACCESS_DENIED_ACE_TYPE) {
            denied |= entry->Mask;
        } else if ((entry->Mask & ~denied & kWriting) != 0) {
            return true;
        }
    }
    return false;
}

// Returns whether it finds a fault. `cure` is what icacls is told then.
bool CheckOne(Findings& findings, const std::wstring& path, const std::string& cure) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT,
                          OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, nullptr, nullptr, nullptr,
                          nullptr, &descriptor);
    const std::string who = descriptor != nullptr ? WhoMayWrite(descriptor) : "";
    LocalFree(descriptor);
    const std::string name = Utf8FromWide(path);
    if (!who.empty()) {
        findings.Failed("rights",
                        who + " may write to " + name + ": they can run programs as the mail server",
                        "run icacls \"" + name + "\" " + cure + " or what step 3 of INSTALL.txt says");
    }
    return !who.empty();
}

}  // namespace

std::string WhoMayWrite(void* descriptor) {
    PSID owner = nullptr;
    PACL list = nullptr;
    BOOL present = FALSE;
    BOOL ignored = FALSE;
    GetSecurityDescriptorDacl(descriptor, &present, &list, &ignored);
    GetSecurityDescriptorOwner(descriptor, &owner, &ignored);
    for (const Group& group : kGroups) {
        // Without a list everybody has all rights. An owner can take them.
        if (list == nullptr || (owner != nullptr && Holds(group, owner)) || MayWrite(group, list)) {
            return group.name;
        }
    }
    return "";
}

void CheckRights(Findings& findings, const InstalledPlugin& installed) {
    for (const std::wstring& folder : {installed.folder, installed.engine_folder}) {
        // What a folder hands down to its programs is told, and cured, there.
        if (CheckOne(findings, folder,
                     "/inheritance:r /grant:r \"*S-1-5-32-544:(OI)(CI)F\" \"*S-1-5-18:(OI)(CI)F\" "
                     "\"*S-1-5-11:(OI)(CI)RX\"")) {
            continue;
        }
        for (const wchar_t* program :
             {L"CLAMDLL.dll", L"kestoscan.exe", L"kestoav.exe", L"kestobridge.exe", L"kestoavu.exe"}) {
            CheckOne(findings, folder + L"\\" + program, "/reset");
        }
    }
}

}  // namespace kesto::host
