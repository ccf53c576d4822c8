#include "common/text.h"
#include "host/check/checks.h"
#include "host/common/plugin_library.h"

namespace kesto::host {
namespace {

// Every name that the mail server may ask for.
constexpr char kExportNames[] =
    "CHECKLICENCE CLOSEINSTANCE CLOSESCANNER DOSIMPLEUPDATE DOUPDATE GETERRORTEXT GETEXPIRY "
    "GETVERSIONDETAILS INITIALIZEINSTANCE INITIALIZESCANNER ISFATALERROR "
    "PROCESSWINDOWSMESSAGE RELOADSCANNER SCANFILE UNLOADSCANNER _CheckLicence@8 "
    "_CloseInstance@4 _CloseScanner@0 _DoSimpleUpdate@8 _DoUpdate@16 _GetErrorText@12 "
    "_GetExpiry2@20 _GetExpiry@12 _GetVersionDetails@8 _InitializeInstance@4 "
    "_InitializeScanner@20 _IsFatalError@4 _ProcessWindowsMessage@12 _ReloadScanner@0 "
    "_ScanFile@24 _UnloadScanner@0";

}  // namespace

void CheckLibrary(Findings& findings, const std::wstring& path) {
    PluginLibrary plugin;
    if (const Fault fault = LoadPlugin(path, plugin, kExportNames)) {
        findings.Failed("library", fault.text, "copy CLAMDLL.dll from the release again");
    } else {
        findings.Ok("library", Utf8FromWide(path) + " loads and has all its exports");
    }
}

}  // namespace kesto::host
