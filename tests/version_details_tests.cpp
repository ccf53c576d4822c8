#include "tests/support/scanner_test.h"

namespace kesto {
namespace {

using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::StartsWith;

const std::string kFirstLine = "KESTOAV Version 1.0.4\n";

class VersionDetailsTest : public ScannerTest {
 protected:
    std::string Details() const {
        std::string text(4096, '\x5E');
        plugin.GetVersionDetails(text.data(), static_cast<uint32_t>(text.size()));
        EXPECT_EQ(text.back(), '\x5E');
        return text.c_str();
    }
    void StartWith(const std::string& servers) { ASSERT_EQ(Start(servers + "autostart=0"), 0); }
};

TEST_F(VersionDetailsTest, ShowReplyInOneOfTwoForms) {
    const uint16_t port = FreePort();
    StartWith(Servers(port));
    const struct {
        std::string reply, second_line;
    } cases[] = {
        {"Engine 9.8/27000/Mon Jan  5 2026", "AV Database 27000 - Updated Mon Jan  5 2026"},
        {"//", "AV Database  - Updated "},
        {"%s/%n/%d", "AV Database %n - Updated %d"},
        {"Engine 9.8", "Engine 9.8"},
        {"a/b", "a/b"},
        {"a/b/c/d", "a/b/c/d"},
        {"", ""},
        {std::string(5000, 'x'), std::string(999, 'x')},
        {"e/" + std::string(5000, 'v') + "/d", "AV Database " + std::string(987, 'v')},
    };
    for (const auto& each : cases) {
        const FakeEngine engine({.reply = WithNul(each.reply)}, port);
        EXPECT_EQ(Details(), kFirstLine + each.second_line);
        EXPECT_EQ(engine.Conversations().at(0).raw, WithNul("zVERSION"));
    }
}

TEST_F(VersionDetailsTest, TellWhenTheEngineGivesNone) {
    const uint16_t port = FreePort();
    FakeEngine second;
    folder.CreateLog();
    StartWith(Servers(port, second.port()));
    EXPECT_EQ(Details(), kFirstLine + "AV Engine version unknown");
    EXPECT_TRUE(second.Conversations().empty());  // only the first is asked
    for (const char* cut : {"", "Engine/1/today"}) {
        const FakeEngine closes({.reply = cut}, port);
        EXPECT_THAT(Details(), testing::AllOf(StartsWith(kFirstLine + "Error -ReceiveStringUntilByte"),
                                              HasSubstr("The peer has closed the socket (TCP) connection")));
    }
    EXPECT_TRUE(folder.LogMessages().empty());
}

TEST_F(VersionDetailsTest, WaitLongerForTheConnectionThanAScanDoes) {
    auto busy = std::make_unique<UnansweredPort>();
    StartWith(Servers(busy->port()));
    std::string details;
    std::thread call([&] { details = Details(); });
    Sleep(1500);  // a scan's limit has passed; there is no event to wait for
    const uint16_t port = busy->port();
    busy.reset();
    FakeEngine engine({.reply = WithNul("late")}, port);
    call.join();
    EXPECT_EQ(details, kFirstLine + "late");
}

TEST_F(VersionDetailsTest, NeverTouchTheLastByteOfTheBuffer) {
    FakeEngine engine({.reply = WithNul("a/1/2")});
    StartWith(Servers(engine.port()));
    const std::string whole = kFirstLine + "AV Database 1 - Updated 2";
    for (const size_t size : {size_t{0}, size_t{1}, size_t{2}, size_t{3}, size_t{10}, whole.size(),
                              whole.size() + 1, whole.size() + 2, whole.size() + 3}) {
        std::string buffer(whole.size() + 8, '\x5E');
        plugin.GetVersionDetails(buffer.data(), static_cast<uint32_t>(size));
        std::string expected(buffer.size(), '\x5E');
        if (size >= 2) {
            const std::string text = WithNul(whole.substr(0, size - 2));
            expected.replace(0, text.size(), text);
        }
        EXPECT_EQ(buffer, expected) << size;
    }
    plugin.GetVersionDetails(nullptr, 100);
}

TEST(VersionDetails, BeforeTheStartAreUnknown) {
    const PluginLibrary plugin;
    char text[100] = "";
    plugin.GetVersionDetails(text, sizeof text);
    EXPECT_EQ(text, kFirstLine + "AV Engine version unknown");
}

}  // namespace
}  // namespace kesto
