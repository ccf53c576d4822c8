// Connecting and its account, first through scans and the log, then on the connection itself.
#include "net/socket_connection.h"
#include "tests/support/scanner_test.h"

namespace kesto {
namespace {

using std::chrono::steady_clock;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

double SecondsSince(steady_clock::time_point begin) {
    return std::chrono::duration<double>(steady_clock::now() - begin).count();
}

class ConnectAccountTest : public ScannerTest {
 protected:
    // The first account of a scan for which this server does not answer, with one that does behind it
    // once that account is written.
    std::string AccountOf(const std::string& server) {
        const uint16_t port = FreePort();
        StartWithIdleEngine("servers=127.0.0.1:" + std::to_string(port) + " " + server);
        ScanOutcome outcome{};
        std::thread scan([&] { outcome = Scan("x"); });
        EXPECT_TRUE(folder.WaitForLog("Couldn't connect"));
        const FakeEngine late({}, port);
        scan.join();
        EXPECT_TRUE(outcome.Clean());
        for (const std::string& each : folder.LogMessages()) {
            if (each.starts_with("Couldn't connect")) {
                return each;
            }
        }
        return {};
    }
};

TEST_F(ConnectAccountTest, TellsThatNobodyListens) {
    const uint16_t port = FreePort();
    EXPECT_THAT(
        AccountOf("127.0.0.1:" + std::to_string(port)),
        AllOf(StartsWith("Couldn't connect to kestoav process - Connect_Socket\n"), HasSubstr("hostname"),
              HasSubstr("127.0.0.1"), HasSubstr(std::to_string(port)), HasSubstr("ssl"),
              HasSubstr("maxWaitMs"), HasSubstr("1000"), HasSubstr("\nThis is an IPV4 numeric address.\n"),
              HasSubstr("\nHostname to IP address resolution not needed.\n"),
              HasSubstr("\nConnect function failed.\nWSAECONNREFUSED No connection could be made because "
                        "the target machine actively refused it."),
              Not(HasSubstr("firewall"))));
    // The account's line feeds reach the disk like any other.
    const std::string log = ReadFile(folder.log_path());
    for (size_t at = log.find('\n'); at != std::string::npos; at = log.find('\n', at + 1)) {
        ASSERT_TRUE(at > 1 && log[at - 1] == '\r' && log[at - 2] != '\r') << at;
    }
}

TEST_F(ConnectAccountTest, TellsOfAnEmptyName) {
    EXPECT_THAT(AccountOf(":3310"), HasSubstr("\nCannot connect, hostname is zero length"));
}

TEST_F(ConnectAccountTest, TellsOfANameThatCannotBeResolved) {
    const std::string account = AccountOf("no-such-host.invalid:3310");
    EXPECT_TRUE(account.find("\nDNS lookup failed.") != std::string::npos ||
                account.find("\nDNS timed out.") != std::string::npos)
        << account;
}

TEST_F(ConnectAccountTest, KeepsTheReasonBehindTheLongestName) {
    EXPECT_THAT(AccountOf(std::string(900, 'h')), HasSubstr("\nDNS "));
}

TEST(SocketConnection, GivesUpOnASilentAddressAtItsLimit) {
    const UnansweredPort silent;
    SocketConnection connection;
    const auto begin = steady_clock::now();
    EXPECT_FALSE(connection.Connect("127.0.0.1", silent.port(), false, 700));
    EXPECT_NEAR(SecondsSince(begin), 0.7, 0.3);
    EXPECT_THAT(connection.LastErrorText(),
                HasSubstr("\nConnect function failed.\nWSAETIMEDOUT A connection"));
}

TEST(SocketConnection, ConnectsByNameAndAgainAfterAFailure) {
    FakeEngine engine;
    SocketConnection connection;
    EXPECT_FALSE(connection.Connect("127.0.0.1", FreePort(), false, 1000));
    ReceivedText text;
    ASSERT_TRUE(text.Append("as it was"));
    EXPECT_FALSE(connection.ReceiveStringUntilByte(0, text));
    EXPECT_THAT(connection.LastErrorText(), HasSubstr("No connection is established"));
    EXPECT_EQ(text.View(), "as it was");
    for (const char* host : {"localhost", "127.0.0.1"}) {
        ASSERT_TRUE(connection.Connect(host, engine.port(), false, 2000)) << connection.LastErrorText();
        EXPECT_FALSE(connection.SendBytes("x", 0));
        EXPECT_THAT(connection.LastErrorText(), HasSubstr("Size of data to send is zero."));
        EXPECT_FALSE(connection.SendBytes(nullptr, 1));
        EXPECT_TRUE(connection.SendBytes("zPING", 6));
        EXPECT_THAT(connection.LastErrorText(),
                    AllOf(StartsWith("SendBytes"), HasSubstr("NumBytes"), HasSubstr("Success.")));
        EXPECT_TRUE(connection.ReceiveStringUntilByte(-5, text));  // is taken as 0
        EXPECT_EQ(text.View(), "stream: OK");
        EXPECT_TRUE(connection.Close(200));
        EXPECT_FALSE(connection.Close(200));
        EXPECT_THAT(connection.LastErrorText(), HasSubstr("No connection to close"));
        EXPECT_FALSE(connection.SendBytes("x", 1));
    }
    for (const Conversation& each : engine.Conversations()) {
        EXPECT_EQ(each.raw, WithNul("zPING"));
    }
}

TEST(SocketConnection, EndsIdleWaitsAtTheirLimits) {
    FakeEngine silent({.reply = "stream: ", .hangs_up = false}), deaf({.reads = false});
    SocketConnection connection;
    connection.MaxReadIdleMs(300);
    connection.MaxSendIdleMs(300);
    ASSERT_TRUE(connection.Connect("127.0.0.1", silent.port(), false, 1000));
    ASSERT_TRUE(connection.SendBytes("zPING", 6));
    ReceivedText text;
    ASSERT_TRUE(text.Append("as it was"));
    auto begin = steady_clock::now();
    EXPECT_FALSE(connection.ReceiveStringUntilByte(0, text));
    EXPECT_NEAR(SecondsSince(begin), 0.3, 0.25);
    EXPECT_THAT(connection.LastErrorText(), HasSubstr("WaitForData timed out."));
    EXPECT_EQ(text.View(), "as it was");

    ASSERT_TRUE(connection.Connect("127.0.0.1", deaf.port(), false, 1000));
    const std::string more_than_fits(64 << 20, 'x');
    begin = steady_clock::now();
    EXPECT_FALSE(connection.SendBytes(more_than_fits.data(), static_cast<uint32_t>(more_than_fits.size())));
    EXPECT_LT(SecondsSince(begin), 3);
    EXPECT_THAT(connection.LastErrorText(),
                AllOf(HasSubstr("Socket send idle timeout"), HasSubstr("Failed.")));
}

TEST(SocketConnection, ClosesWithTheObject) {
    uint16_t port = 0;
    const SOCKET listener = ListenOnLoopback(port);
    auto connection = std::make_unique<SocketConnection>();
    ASSERT_TRUE(connection->Connect("127.0.0.1", port, false, 1000));
    Wire peer(accept(listener, nullptr, nullptr));
    connection.reset();
    EXPECT_TRUE(peer.ReceiveRest().ended);
    closesocket(listener);
}

TEST(SocketConnection, HandsOutItsTextInARingOfTen) {
    SocketConnection connection;
    connection.Close(0);
    const char* const first = connection.LastErrorText();
    connection.SendBytes("x", 1);
    for (int i = 0; i < 9; ++i) {
        connection.LastErrorText();
    }
    EXPECT_THAT(first, StartsWith("Close"));
    EXPECT_EQ(connection.LastErrorText(), first);
    EXPECT_THAT(first, StartsWith("SendBytes"));
}

}  // namespace
}  // namespace kesto
