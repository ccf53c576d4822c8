// What stands at both ends of the plug-in or the bridge without taking the Wine server's time; built for the
// Unix system below Wine.
//
//   unix_peer sink PORT               an engine that finds every file clean, and whose receiver delays its
//                                     acknowledgements, as Windows does
//   unix_peer send PORT COUNT SIZE    scans COUNT files of SIZE bytes, one after the other
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/clamd_words.h"
#include "bridge/framing.h"

namespace {

constexpr std::string_view kClean("stream: OK\0", 11);

sockaddr_in Loopback(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

// Until the system turns it off by itself, which it does soon.
void DelayAcknowledgements(int socket) {
    const int off = 0;
    setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &off, sizeof off);
}

void Serve(int client) {
    std::vector<uint8_t> buffer(65536);
    size_t command_left = kesto::kScanCommand.size();
    kesto::bridge::ChunkStream stream;
    while (!stream.ended) {
        DelayAcknowledgements(client);
        const ssize_t count = recv(client, buffer.data(), buffer.size(), 0);
        if (count <= 0) {
            break;
        }
        const size_t command = std::min(command_left, static_cast<size_t>(count));
        command_left -= command;
        kesto::bridge::FollowChunks(stream, buffer.data() + command, static_cast<size_t>(count) - command,
                                    false);
    }
    send(client, kClean.data(), kClean.size(), MSG_NOSIGNAL);
    close(client);
}

int Sink(int port) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = Loopback(port);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, SOMAXCONN) != 0) {
        return 1;
    }
    DelayAcknowledgements(listener);  // accepted connections begin with it
    for (;;) {
        const int client = accept(listener, nullptr, nullptr);
        if (client >= 0) {
            std::thread(Serve, client).detach();
        }
    }
}

int Send(int port, int count, size_t size) {
    std::string request(kesto::kScanCommand);
    for (size_t left = size; left != 0; left -= std::min<size_t>(left, kesto::kChunkSize)) {
        const uint32_t length = htonl(static_cast<uint32_t>(std::min<size_t>(left, kesto::kChunkSize)));
        request.append(reinterpret_cast<const char*>(&length), sizeof length);
        request.append(std::min<size_t>(left, kesto::kChunkSize), 'd');
    }
    request.append(4, '\0');
    const sockaddr_in address = Loopback(port);
    for (int i = 0; i < count; ++i) {
        const int server = socket(AF_INET, SOCK_STREAM, 0);
        char reply[16];
        if (connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            send(server, request.data(), request.size(), MSG_NOSIGNAL) !=
                static_cast<ssize_t>(request.size()) ||
            recv(server, reply, sizeof reply, MSG_WAITALL) != static_cast<ssize_t>(kClean.size()) ||
            std::string_view(reply, kClean.size()) != kClean) {
            return 1;
        }
        close(server);
    }
    std::puts("done");
    return 0;
}

}  // namespace

int main(int count, char** arguments) {
    const std::string_view mode = count > 1 ? arguments[1] : "";
    if (mode == "sink" && count == 3) {
        return Sink(std::atoi(arguments[2]));
    }
    if (mode == "send" && count == 5) {
        return Send(std::atoi(arguments[2]), std::atoi(arguments[3]),
                    std::strtoul(arguments[4], nullptr, 10));
    }
    return 2;
}
