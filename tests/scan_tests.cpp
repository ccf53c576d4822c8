// A scan through the exports: what goes on the wire, and what the host sees of the reply.
#include "tests/support/plugin_host.h"

namespace kesto {
namespace {

class ScanTest : public PluginTest {};

TEST_F(ScanTest, SendsTheFileInPrefixedChunks) {
    ScriptedEngine engine;
    StartWithEngine(Servers(engine.Port()));
    for (const bool encrypted : {true, false}) {
        Start(Servers(engine.Port()) + "autostart=0\n" + (encrypted ? "" : "encrypt=0"));
        for (const size_t size : {1u, 100u, 8191u, 8192u, 8193u, 16384u, 300'001u}) {
            std::string data(size, '\0');
            for (size_t i = 0; i < size; ++i) {
                data[i] = static_cast<char>(i * 7 + i / 8192);
            }
            std::string hosts_memory = data;
            ASSERT_TRUE(Scan(hosts_memory).Clean());
            EXPECT_EQ(hosts_memory, data);
            // Compared as a truth: a difference in so many bytes would drown the output.
            EXPECT_TRUE(engine.Requests().back().raw == ScanRequestOf(data, encrypted)) << size << encrypted;
        }
    }
}

}  // namespace
}  // namespace kesto
