// Runs the bridge in simulated worlds: simulation SEED tells the story of one, simulation FIRST LAST
// [SECONDS] runs many, for so long at most, and names those in which a promise was broken.
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>

#include "tests/simulation/world.h"

namespace {

using namespace kesto::simulation;

constexpr unsigned kLongest = 60;  // seconds for one seed
const char* g_program = "";
uint64_t g_seed = 0;

void Name(const std::string& promise) {
    std::cout << "seed " << g_seed << ": " << promise << "\n    its story: " << g_program << ' ' << g_seed
              << std::endl;
}

void Crashed(int signal) {
    Name(signal == SIGALRM ? "does not come to an end" : "crashes");
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

}  // namespace

void* operator new(size_t size) {
    g_memory.FailIfLacking();
    ++g_memory.blocks;
    return std::malloc(size);
}

void operator delete(void* block) noexcept {
    g_memory.blocks -= block != nullptr;
    std::free(block);
}

void operator delete(void* block, size_t /*size*/) noexcept {
    operator delete(block);
}

// What is held at its end is counted for each seed; a world whose promise was broken gives nothing back.
extern "C" const char* __asan_default_options() {
    return "detect_leaks=0:abort_on_error=1";
}

int main(int count, char** words) {
    const auto number = [&](int at, uint64_t otherwise) {
        return at < count ? std::strtoull(words[at], nullptr, 10) : otherwise;
    };
    const uint64_t first = number(1, 1), last = number(2, first), seconds = number(3, 1 << 30);
    g_program = words[0];
    for (const int signal : {SIGALRM, SIGABRT, SIGSEGV, SIGILL}) {
        std::signal(signal, Crashed);
    }
    const std::time_t end = std::time(nullptr) + static_cast<std::time_t>(seconds);
    uint64_t broken = 0;
    for (g_seed = first; g_seed <= last && broken < 5 && std::time(nullptr) < end; ++g_seed) {
        alarm(kLongest);
        g_memory = {};
        std::string promise = World(g_seed, count == 2).Run();
        if (promise.empty() && g_memory.blocks != 0) {
            promise = "memory is held at the end";
        }
        if (!promise.empty()) {
            Name(promise);
            ++broken;
        }
    }
    std::cout << g_seed - first << " seeds, " << broken << " with a broken promise" << std::endl;
    return broken == 0 ? 0 : 1;
}
