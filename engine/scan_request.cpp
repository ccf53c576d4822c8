#include "engine/scan_request.h"

#include <windows.h>

#include "engine/stream_scan.h"
#include "plugin/bounded_text.h"
#include "plugin/log.h"
#include "plugin/result_codes.h"
#include "plugin/server_list.h"
#include "plugin/settings.h"
#include "process/elapsed_seconds.h"
#include "process/engine_process.h"

namespace kesto {

static constexpr uint32_t kConnectMs = 1000;

uint32_t FailScan(uint32_t* error_code, uint32_t code) {
    if (error_code != nullptr) {
        *error_code = code;
    }
    return 0;
}

// One pass: the first server that accepts.
static bool ConnectToAnyServer(SocketConnection& connection) {
    for (const ServerEntry& server : Servers()) {
        if (connection.Connect(server.host.c_str(), server.port, false, kConnectMs)) {
            return true;
        }
    }
    return false;
}

// Passes until the limit is exceeded, without a pause between them. None is made while no engine process
// runs, which is asked once: not between passes, and for servers on other machines, too.
static bool ConnectWithin(SocketConnection& connection, uint32_t start, uint32_t limit_seconds) {
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

// Restarts the engine as often as it takes; false when a restart leaves none running.
static bool ConnectToEngine(SocketConnection& connection) {
    uint32_t start = GetTickCount();
    uint32_t limit_seconds = Settings().connectwait;
    while (!ConnectWithin(connection, start, limit_seconds)) {
        Restart restart = RestartEngineProcess();
        if (!restart.running) {
            LogMessage("unable to connect to kestoav process - permanent error");
            return false;
        }
        // The restart's time is taken from the connecting after it.
        start = restart.began;
        limit_seconds = Settings().startwait;
    }
    return true;
}

static void ReportInfected(ScanFileResult& result, const ScanFileInput& input, const char* virus_name) {
    result.infected = 1;
    if (result.detection != nullptr) {
        CopyText(result.detection + kDetectionFileName, kFileNameSize, input.name);
        CopyText(result.detection + kDetectionVirusName, kVirusNameSize, virus_name);
    }
}

uint32_t ScanFile(const ScanFileInput* input, ScanFileResult* result, uint32_t* error_code) {
    if (input == nullptr) {
        return FailScan(error_code, kErrorCommunicate);
    }
    LogMessage("Scan file - %.100s - %lu", input->name, static_cast<unsigned long>(input->size));
    if (input->size == 0) {
        return 1;
    }
    if (input->data == nullptr || result == nullptr) {
        return FailScan(error_code, kErrorCommunicate);
    }
    SocketConnection connection;
    // Without servers there was no start-up, and no folder to restart an engine from.
    if (Servers().empty() || !ConnectToEngine(connection)) {
        return FailScan(error_code, kErrorConnect);
    }
    ScanVerdict verdict = StreamScan(connection, *input, Settings().encrypt);
    switch (verdict.kind) {
        case VerdictKind::Clean:
            return 1;
        case VerdictKind::Infected:
            ReportInfected(*result, *input, verdict.text.c_str());
            return 1;
        case VerdictKind::SendFailed:
            return FailScan(error_code, kErrorCommunicate);
        case VerdictKind::UnexpectedReply:
            break;
    }
    LogMessage("Unexpected response from KESTOAV - %.900s", verdict.text.c_str());
    return FailScan(error_code, kErrorReply);
}

}  // namespace kesto
