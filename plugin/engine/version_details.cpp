#include "plugin/engine/version_details.h"

#include <string_view>

#include "base/bounded_text.h"
#include "base/server_list.h"
#include "plugin/engine/stream_scan.h"

namespace kesto {
namespace {

constexpr uint32_t kConnectMs = 20000;

// Puts "engine/database/date" into words, without the engine's own version. A reply of any other form is
// shown as it is.
void DescribeReply(std::string_view reply, char (&detail)[kMessageSize]) {
    const auto length = [](std::string_view text) { return static_cast<int>(text.size()); };
    const size_t first = reply.find('/');
    const size_t second = first == reply.npos ? first : reply.find('/', first + 1);
    if (second == reply.npos || reply.find('/', second + 1) != reply.npos) {
        FormatText(detail, sizeof detail, "%.*s", length(reply), reply.data());
        return;
    }
    const std::string_view database(reply.data() + first + 1, second - first - 1);
    const std::string_view date(reply.data() + second + 1, reply.size() - second - 1);
    FormatText(detail, sizeof detail, "AV Database %.*s - Updated %.*s", length(database), database.data(),
               length(date), date.data());
}

void DescribeEngine(char (&detail)[kMessageSize]) {
    CopyText(detail, sizeof detail, "AV Engine version unknown");
    if (Servers().empty()) {  // not started yet
        return;
    }
    const ServerEntry& server = *Servers().begin();
    SocketConnection connection;
    if (!connection.Connect(server.host, server.port, false, kConnectMs)) {
        return;
    }
    connection.MaxReadIdleMs(kIdleLimitMs);
    connection.MaxSendIdleMs(kIdleLimitMs);
    ReceivedText reply;
    if (SendCommand(connection, kVersionCommand)) {
        if (connection.ReceiveStringUntilByte(0, reply)) {
            DescribeReply(reply.View(), detail);
        } else {
            FormatText(detail, sizeof detail, "Error -%s", connection.LastErrorText());
        }
    }
    connection.Close(kCloseWaitMs);
}

}  // namespace

void WriteVersionDetails(char* buffer, int32_t size) {
    char detail[kMessageSize];
    DescribeEngine(detail);
    if (buffer != nullptr && size >= 2) {
        FormatText(buffer, static_cast<size_t>(size) - 1, "KESTOAV Version %s\n%s", KESTOAV_VERSION, detail);
    }
}

}  // namespace kesto
