// Runs the bridge in simulated worlds: simulation SEED tells the story of one, simulation FIRST LAST
// [SECONDS] runs many, for so long at most, and names those in which a promise was broken.
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <iostream>

#include "tests/simulation/world.h"

namespace kesto::simulation {
namespace {

constexpr unsigned kLongest = 60;  // seconds for one seed
constexpr unsigned kMostNamed = 5000;

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

bool Keeps(uint64_t seed, bool tells) {
    g_seed = seed;
    g_memory = {};
    alarm(kLongest);
    World world(seed, tells);
    const std::string broken = world.Run();
    if (!broken.empty()) {
        Name(broken);
    }
    return broken.empty();
}

int Main(int count, char** words) {
    g_program = words[0];
    for (const int signal : {SIGALRM, SIGABRT, SIGSEGV, SIGILL}) {
        std::signal(signal, Crashed);
    }
    const auto number = [&](int at) { return std::strtoull(words[at], nullptr, 10); };
    if (count == 2) {
        return Keeps(number(1), true) ? 0 : 1;
    }
    const std::time_t end = std::time(nullptr) + (count == 4 ? static_cast<std::time_t>(number(3)) : 1 << 30);
    uint64_t seed = number(1), broken = 0;
    for (; seed <= number(2) && std::time(nullptr) < end && broken < kMostNamed; ++seed) {
        broken += !Keeps(seed, false);
    }
    std::cout << seed - number(1) << " seeds, " << broken << " with a broken promise" << std::endl;
    return broken == 0 ? 0 : 1;
}

}  // namespace
}  // namespace kesto::simulation

// Memory that is not given back is counted for each seed; a world whose promise was broken gives nothing
// back.
extern "C" const char* __asan_default_options() {
    return "detect_leaks=0:abort_on_error=1";
}

int main(int count, char** words) {
    return count >= 2 ? kesto::simulation::Main(count, words) : 2;
}
