// unix_sink PORT: an engine that finds every file clean, and whose receiver delays its acknowledgements, as
// Windows does. Built for the Unix system below Wine, which alone lets a program ask for that.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>
#include <vector>

#include "base/clamd_words.h"
#include "bench/stream_end.h"

namespace {

// This lasts until the system turns it off by itself, which it does soon.
void DelayAcknowledgements(int socket) {
    const int off = 0;
    setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &off, sizeof off);
}

void Serve(int client) {
    std::vector<char> buffer(65536);
    kesto::StreamEnd end;
    ssize_t count = 0;
    do {
        DelayAcknowledgements(client);
        count = recv(client, buffer.data(), buffer.size(), 0);
    } while (count > 0 && !end.IsReachedBy(buffer.data(), static_cast<size_t>(count)));
    send(client, kesto::kCleanReply.data(), kesto::kCleanReply.size() + 1, MSG_NOSIGNAL);  // with its NUL
    close(client);
}

}  // namespace

int main(int count, char** arguments) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(std::atoi(count > 1 ? arguments[1] : "")));
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
