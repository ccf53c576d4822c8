#include "plugin/engine/scan_request.h"

#include <windows.h>

#include <algorithm>
#include <string_view>

#include "base/bounded_text.h"
#include "base/log.h"
#include "base/server_list.h"
#include "base/settings.h"
#include "plugin/engine/stream_scan.h"
#include "plugin/process/elapsed_seconds.h"
#include "plugin/process/engine_process.h"

namespace kesto {
namespace {

constexpr uint32_t kConnectMs = 1000;
constexpr size_t kMostLoggedReply = 900;  // characters

// One pass over the servers: connects to the first that accepts.
bool ConnectToAnyServer(SocketConnection& connection) {
    return std::any_of(Servers().begin(), Servers().end(), [&](const ServerEntry& server) {
        return connection.Connect(server.host, server.port, false, kConnectMs);
    });
}

// Makes passes without a pause until the limit is exceeded, but none when no engine process runs. That is
// asked once, not between passes, and even when all servers are on other machines.
bool ConnectWithin(SocketConnection& connection, uint32_t start, uint32_t limit_seconds) {
    if (FindEngineProcess() == 0) {
        return false;
    }
    do {
        if (ConnectToAnyServer(connection)) {
            return true;
        }
        LogMessage("Couldn't connect to kestoav process - %s", connection.LastErrorText());
    } while (ElapsedSeconds(start, GetTickCount()) <= limit_seconds);
    return false;
}

// Restarts the engine as often as needed. Returns false when no engine runs after a restart.
bool ConnectToEngine(SocketConnection& connection) {
    uint32_t start = GetTickCount();
    uint32_t limit_seconds = Settings().connectwait;
    while (!ConnectWithin(connection, start, limit_seconds)) {
        Restart restart = RestartEngineProcess();
        if (!restart.running) {
            LogMessage("unable to connect to kestoav process - permanent error");
            return false;
        }
        // The time that the restart took counts towards the limit for connecting.
        start = restart.began;
        limit_seconds = Settings().startwait;
    }
    return true;
}

void ReportInfected(ScanFileResult& result, const ScanFileInput& input, std::string_view virus_name) {
    result.infected = 1;
    if (result.detection != nullptr) {
        CopyText(result.detection + kDetectionFileName, kFileNameSize, input.name);
        FormatText(result.detection + kDetectionVirusName, kVirusNameSize, "%.*s",
                   static_cast<int>(virus_name.size()), virus_name.data());
    }
}

uint32_t FailScan(uint32_t* error_code, uint32_t code) {
    if (error_code != nullptr) {
        *error_code = code;
    }
    return 0;
}

}  // namespace

uint32_t ScanFile(const ScanFileInput* input, ScanFileResult* result, uint32_t* error_code) {
    if (input == nullptr) {
        return FailScan(error_code, kErrorCommunicate);
    }
    LogMessage(kScanLine, input->name, static_cast<unsigned long>(input->size));
    if (input->size == 0) {
        return 1;
    }
    if (input->data == nullptr || result == nullptr) {
        return FailScan(error_code, kErrorCommunicate);
    }
    SocketConnection connection;
    // Without servers there was no start-up, and so there is no folder with an engine to start.
    if (Servers().empty() || !ConnectToEngine(connection)) {
        return FailScan(error_code, kErrorConnect);
    }
    ReceivedText reply;
    ScanVerdict verdict = StreamScan(connection, *input, Settings().encrypt, reply);
    switch (verdict.kind) {
        case VerdictKind::kClean:
            return 1;
        case VerdictKind::kInfected:
            ReportInfected(*result, *input, verdict.text);
            return 1;
        case VerdictKind::kSendFailed:
            return FailScan(error_code, kErrorCommunicate);
        case VerdictKind::kUnexpectedReply:
            break;
    }
    LogMessage("%s%.*s", kUnexpectedReplyLine,
               static_cast<int>(std::min(verdict.text.size(), kMostLoggedReply)), verdict.text.data());
    return FailScan(error_code, kErrorReply);
}

}  // namespace kesto
