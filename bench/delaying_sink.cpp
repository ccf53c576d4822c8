// An engine whose receiver delays its acknowledgements, as Windows does: finds every file clean. Built for
// the Unix system below Wine, which can be told to delay. Usage: delaying_sink PORT
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <thread>
#include <vector>

#include "bridge/framing.h"

namespace {

ssize_t ReceiveDelayed(int client, std::vector<uint8_t>& buffer) {
    const int off = 0;  // the system turns it on again by itself
    setsockopt(client, IPPROTO_TCP, TCP_QUICKACK, &off, sizeof off);
    return recv(client, buffer.data(), buffer.size(), 0);
}

void Serve(int client) {
    std::vector<uint8_t> buffer(65536);
    size_t command_left = sizeof "zINSTREAM";
    kesto::ChunkStream stream;
    while (!stream.ended) {
        const ssize_t count = ReceiveDelayed(client, buffer);
        if (count <= 0) {
            break;
        }
        const size_t command = std::min(command_left, static_cast<size_t>(count));
        command_left -= command;
        kesto::FollowChunks(stream, buffer.data() + command, static_cast<size_t>(count) - command, false);
    }
    constexpr std::string_view kClean("stream: OK\0", 11);
    send(client, kClean.data(), kClean.size(), MSG_NOSIGNAL);
    close(client);
}

}  // namespace

int main(int count, char** arguments) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(count > 1 ? std::atoi(arguments[1]) : 0));
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, SOMAXCONN) != 0) {
        return 1;
    }
    for (;;) {
        const int client = accept(listener, nullptr, nullptr);
        if (client >= 0) {
            std::thread(Serve, client).detach();
        }
    }
}
