#include "plugin/net/host_resolver.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <atomic>
#include <cstdlib>

namespace kesto {
namespace {

const addrinfo* Next(const addrinfo* entry) {
    return entry->ai_next;
}

// This link is declared with another type than what it points to.
const ADDRINFOEXW* Next(const ADDRINFOEXW* entry) {
    return reinterpret_cast<const ADDRINFOEXW*>(entry->ai_next);
}

template <typename AddressInfo>
void TakeAddresses(const AddressInfo* entry, HostAddresses& found) {
    for (; entry != nullptr && found.count < kMostAddresses; entry = Next(entry)) {
        if (entry->ai_family == AF_INET && entry->ai_addr != nullptr) {
            found.addresses[found.count++] = reinterpret_cast<sockaddr_in*>(entry->ai_addr)->sin_addr.s_addr;
        }
    }
}

int Outcome(int error, const HostAddresses& found) {
    return error == 0 && found.count == 0 ? WSANO_DATA : error;
}

// The resolver that works in the background and can be cancelled, from Windows 8 on.
struct AsyncResolver {
    decltype(&GetAddrInfoExW) start;
    int(WSAAPI* outcome)(OVERLAPPED*);
    int(WSAAPI* cancel)(HANDLE*);
    decltype(&FreeAddrInfoExW) free;
};

bool FindAsyncResolver(AsyncResolver& resolver) {
    HMODULE sockets = GetModuleHandleA("ws2_32.dll");
    auto find = [sockets](const char* name) {
        return reinterpret_cast<void*>(GetProcAddress(sockets, name));
    };
    resolver.start = reinterpret_cast<decltype(resolver.start)>(find("GetAddrInfoExW"));
    resolver.outcome = reinterpret_cast<decltype(resolver.outcome)>(find("GetAddrInfoExOverlappedResult"));
    resolver.cancel = reinterpret_cast<decltype(resolver.cancel)>(find("GetAddrInfoExCancel"));
    resolver.free = reinterpret_cast<decltype(resolver.free)>(find("FreeAddrInfoExW"));
    return resolver.start != nullptr && resolver.outcome != nullptr && resolver.cancel != nullptr &&
           resolver.free != nullptr;
}

// One lookup under way; all zero at first. The system writes into it until the event is set. That may be
// after we have stopped waiting, so it is on the heap.
struct Lookup {
    OVERLAPPED overlapped;
    HANDLE cancel_handle;
    ADDRINFOEXW hints;
    ADDRINFOEXW* result;
    wchar_t name[1000];
    Lookup* next;
};

// Lookups that were cancelled but did not end at once.
std::atomic<Lookup*> g_abandoned;

void Abandon(Lookup* lookup) {
    lookup->next = g_abandoned.load();
    while (!g_abandoned.compare_exchange_weak(lookup->next, lookup)) {
    }
}

void Destroy(const AsyncResolver& resolver, Lookup* lookup) {
    if (lookup->result != nullptr) {
        resolver.free(lookup->result);
    }
    if (lookup->overlapped.hEvent != nullptr) {
        CloseHandle(lookup->overlapped.hEvent);
    }
    free(lookup);
}

bool Ended(const Lookup* lookup, DWORD wait_ms) {
    return WaitForSingleObject(lookup->overlapped.hEvent, wait_ms) == WAIT_OBJECT_0;
}

void DestroyEndedLookups(const AsyncResolver& resolver) {
    Lookup* lookup = g_abandoned.exchange(nullptr);
    while (lookup != nullptr) {
        Lookup* next = lookup->next;
        if (Ended(lookup, 0)) {
            Destroy(resolver, lookup);
        } else {
            Abandon(lookup);
        }
        lookup = next;
    }
}

int ResolveAsync(const AsyncResolver& resolver, const char* host, uint32_t limit_ms, HostAddresses& found) {
    DestroyEndedLookups(resolver);
    auto* lookup = static_cast<Lookup*>(calloc(1, sizeof(Lookup)));
    if (lookup == nullptr) {
        return WSAENOBUFS;
    }
    lookup->overlapped.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    lookup->hints.ai_family = AF_INET;
    lookup->hints.ai_socktype = SOCK_STREAM;
    if (lookup->overlapped.hEvent == nullptr ||
        MultiByteToWideChar(CP_ACP, 0, host, -1, lookup->name,
                            sizeof lookup->name / sizeof lookup->name[0]) == 0) {
        Destroy(resolver, lookup);
        return WSAEINVAL;
    }

    int error = resolver.start(lookup->name, nullptr, NS_DNS, nullptr, &lookup->hints, &lookup->result,
                               nullptr, &lookup->overlapped, nullptr, &lookup->cancel_handle);
    if (error == WSA_IO_PENDING) {
        if (!Ended(lookup, limit_ms)) {
            resolver.cancel(&lookup->cancel_handle);
            // Not every system ends the lookup then, and the caller must not wait beyond the limit.
            constexpr DWORD kCancelMs = 50;
            if (Ended(lookup, kCancelMs)) {
                Destroy(resolver, lookup);
            } else {
                Abandon(lookup);
            }
            return kLookupTimedOut;
        }
        error = resolver.outcome(&lookup->overlapped);
    }
    if (error == 0) {
        TakeAddresses(lookup->result, found);
    }
    Destroy(resolver, lookup);
    return Outcome(error, found);
}

// The system takes as long as it likes. An answer after the limit does not count.
int ResolveBlocking(const char* host, uint32_t limit_ms, HostAddresses& found) {
    const uint32_t start = GetTickCount();
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* result = nullptr;
    const int error = getaddrinfo(host, nullptr, &hints, &result);
    if (error == 0) {
        TakeAddresses(result, found);
        freeaddrinfo(result);
    }
    return GetTickCount() - start >= limit_ms ? kLookupTimedOut : Outcome(error, found);
}

}  // namespace

int ResolveHost(const char* host, uint32_t limit_ms, HostAddresses& found) {
    found.count = 0;
    AsyncResolver resolver;
    return FindAsyncResolver(resolver) ? ResolveAsync(resolver, host, limit_ms, found)
                                       : ResolveBlocking(host, limit_ms, found);
}

}  // namespace kesto
