// The connection to an engine: what it does, how long it waits, and the account that it gives.
#include <gmock/gmock.h>

#include "net/socket_connection.h"
#include "net/socket_errors.h"
#include "tests/support/losses.h"
#include "tests/support/scripted_engine.h"

namespace kesto {
namespace {

using std::chrono::steady_clock;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

double SecondsSince(steady_clock::time_point begin) {
    return std::chrono::duration<double>(steady_clock::now() - begin).count();
}

TEST(Connection, AccountsForEachFailureAndLosesNothing) {
    const uint16_t closed = FreePort();
    const UnansweredPort silent;
    const std::string numeric =
        "\nThis is an IPV4 numeric address.\nHostname to IP address resolution not needed.\n";
    const struct {
        const char* host;
        uint16_t port;
        double seconds;
        std::string account;  // a part of it
    } cases[] = {
        {"127.0.0.1", closed, 0,
         numeric + "Connect function failed.\nWSAECONNREFUSED No connection could be made because the target "
                   "machine "
                   "actively refused it."},
        {"127.0.0.1", silent.Port(), 0.3, numeric + "Connect function failed.\nWSAETIMEDOUT A connection"},
        {"localhost", silent.Port(), 0.3, "\nConnect function failed.\nWSAETIMEDOUT A connection"},
        {"", 1, 0, "\nCannot connect, hostname is zero length"},
        {nullptr, 1, 0, "\nCannot connect, hostname is NULL"},
        {"no-such-host.invalid", 1, 0, "maxWaitMs: 300\nDNS "},
        {"256.0.0.1", 1, 0, "maxWaitMs: 300\nDNS "},  // a name
    };
    SocketConnection connection;
    const std::string too_long(1001, 'h');
    for (const auto& each : cases) {
        SCOPED_TRACE(each.account);
        ExpectNothingLost(3, [&] {
            const auto begin = steady_clock::now();
            EXPECT_FALSE(connection.Connect(each.host, each.port, false, 300));
            if (each.seconds > 0) {
                EXPECT_NEAR(SecondsSince(begin), each.seconds, 0.15);
            }
            const std::string account = connection.LastErrorText();
            EXPECT_THAT(account,
                        StartsWith("Connect_Socket\nhostname: " + std::string(each.host ? each.host : "") +
                                   "\nport: " + std::to_string(each.port) + "\nssl: 0\nmaxWaitMs: 300\n"));
            EXPECT_THAT(account, HasSubstr(each.account));
            EXPECT_EQ(account.find("firewall") != std::string::npos,
                      account.find("\nError 0x") != std::string::npos);
            EXPECT_FALSE(connection.Connect(too_long.c_str(), 1, false, 300));  // not even looked up
            EXPECT_THAT(connection.LastErrorText(), HasSubstr("\nDNS lookup failed.\nWSAEINVAL"));
        });
    }
    EXPECT_TRUE(WaitFor([&] {
        EXPECT_FALSE(connection.Connect("localhost", closed, false, 0));
        return std::string(connection.LastErrorText()).ends_with("\nDNS timed out.");
    }));
}

TEST(Connection, ConversesAndCanBeMadeAgain) {
    ScriptedEngine engine(
        ReplyingBytes("before\xFF"
                      "behind"));
    SocketConnection connection;
    ReceivedText text;
    EXPECT_FALSE(connection.ReceiveStringUntilByte(0, text));
    EXPECT_THAT(connection.LastErrorText(), HasSubstr("\nNo connection is established"));
    for (const char* host : {"localhost", "127.0.0.1"}) {
        ASSERT_TRUE(connection.Connect(host, engine.Port(), false, 2000)) << connection.LastErrorText();
        EXPECT_THAT(connection.LastErrorText(), Not(HasSubstr("NODELAY")));
        EXPECT_FALSE(connection.SendBytes("x", 0));
        EXPECT_THAT(connection.LastErrorText(), HasSubstr("\nSize of data to send is zero."));
        EXPECT_FALSE(connection.SendBytes(nullptr, 1));
        EXPECT_TRUE(connection.SendBytes("zPING", 6));
        EXPECT_THAT(connection.LastErrorText(),
                    AllOf(StartsWith("SendBytes\nNumBytes: 6\n"), EndsWith("\nSuccess.")));
        EXPECT_TRUE(connection.ReceiveStringUntilByte(300, text));  // is taken as 255
        EXPECT_THAT(connection.LastErrorText(), StartsWith("ReceiveStringUntilByte\nbyteValue: 300"));
        EXPECT_EQ(text.View(), "before");
        EXPECT_TRUE(connection.Close(200));
        EXPECT_FALSE(connection.Close(200));
        EXPECT_THAT(connection.LastErrorText(),
                    AllOf(StartsWith("Close\n"), HasSubstr("\nNo connection to close")));
        EXPECT_FALSE(connection.SendBytes("x", 1));
        EXPECT_THAT(connection.LastErrorText(), HasSubstr("\nNo connection is established"));
    }
    engine.Play(Replying("to its NUL"));
    connection.NoDelay(true);
    ASSERT_TRUE(connection.Connect("127.0.0.1", engine.Port(), false, 2000));
    EXPECT_THAT(connection.LastErrorText(), HasSubstr("\nSetting TCP_NODELAY\n"));
    EXPECT_TRUE(connection.SendBytes("zPING", 6));
    EXPECT_TRUE(connection.ReceiveStringUntilByte(-5, text));  // is taken as 0
    EXPECT_EQ(text.View(), "to its NUL");
    for (const EngineRequest& each : engine.Requests()) {
        EXPECT_EQ(each.raw, WithNul("zPING"));
    }
}

TEST(Connection, EndsItsWaitsAtTheirLimits) {
    ScriptedEngine silent(Silent("stream: ")), deaf(Deaf()), leaving(ReplyingBytes("stream: "));
    SocketConnection connection;
    connection.MaxReadIdleMs(300);
    connection.MaxSendIdleMs(600);
    ReceivedText text;
    text.Append("as it was");
    ASSERT_TRUE(connection.Connect("127.0.0.1", silent.Port(), false, 1000));
    ASSERT_TRUE(connection.SendBytes("zPING", 6));
    auto begin = steady_clock::now();
    EXPECT_FALSE(connection.ReceiveStringUntilByte(0, text));
    EXPECT_NEAR(SecondsSince(begin), 0.3, 0.2);
    EXPECT_THAT(connection.LastErrorText(), HasSubstr("\nWaitForData timed out."));

    ASSERT_TRUE(connection.Connect("127.0.0.1", deaf.Port(), false, 1000));
    const std::string more_than_fits(32 << 20, 'x');
    begin = steady_clock::now();
    EXPECT_FALSE(connection.SendBytes(more_than_fits.data(), static_cast<uint32_t>(more_than_fits.size())));
    EXPECT_NEAR(SecondsSince(begin), 0.8, 0.3);
    EXPECT_THAT(connection.LastErrorText(), EndsWith("\nSocket send idle timeout\nFailed."));

    ASSERT_TRUE(connection.Connect("127.0.0.1", leaving.Port(), false, 1000));
    ASSERT_TRUE(connection.SendBytes("zPING", 6));
    EXPECT_FALSE(connection.ReceiveStringUntilByte(0, text));
    EXPECT_THAT(connection.LastErrorText(), HasSubstr("\nThe peer has closed the socket (TCP) connection"));
    EXPECT_EQ(text.View(), "as it was");
    leaving.Kill();
    EXPECT_TRUE(WaitFor([&] { return !connection.SendBytes("x", 1); }));
    EXPECT_THAT(connection.LastErrorText(), AllOf(HasSubstr("\nError sending on socket\nWSAE"),
                                                  EndsWith("\nSocket send failed\nFailed.")));
}

TEST(Connection, ClosesWithTheObjectAndHandsOutItsTextInARingOfTen) {
    ScriptedEngine engine(Silent());
    const char* first = nullptr;
    {
        SocketConnection connection;
        ASSERT_TRUE(connection.Connect("127.0.0.1", engine.Port(), false, 1000));
        first = connection.LastErrorText();
        connection.SendBytes("x", 0);
        for (int i = 0; i < 9; ++i) {
            connection.LastErrorText();
        }
        EXPECT_THAT(first, StartsWith("Connect_Socket"));
        EXPECT_EQ(connection.LastErrorText(), first);
        EXPECT_THAT(first, StartsWith("SendBytes"));
    }
    EXPECT_TRUE(WaitFor([&] { return engine.Ended() == 1; }));
}

TEST(SocketErrors, HaveTheirOwnWords) {
    const std::pair<int, const char*> kNames[] = {{10093, "NOTINITIALISED"},  {10035, "EWOULDBLOCK"},
                                                  {10053, "ECONNABORTED"},    {10050, "ENETDOWN"},
                                                  {10047, "EAFNOSUPPORT"},    {10036, "EINPROGRESS"},
                                                  {10024, "EMFILE"},          {10055, "ENOBUFS"},
                                                  {10043, "EPROTONOSUPPORT"}, {10041, "EPROTOTYPE"},
                                                  {10044, "ESOCKTNOSUPPORT"}, {10051, "ENETUNREACH"},
                                                  {10060, "ETIMEDOUT"},       {10061, "ECONNREFUSED"},
                                                  {10054, "ECONNRESET"},      {10048, "EADDRINUSE"},
                                                  {10013, "EACCES"},          {10022, "EINVAL"},
                                                  {10049, "EADDRNOTAVAIL"},   {10106, "EPROVIDERFAILEDINIT"},
                                                  {11001, "HOST_NOT_FOUND"},  {11004, "NO_DATA"}};
    size_t described = 0;
    for (int error = 0; error < 12'000; ++error) {
        described += SocketErrorDescription(error) != nullptr;
    }
    EXPECT_EQ(described, std::size(kNames));
    for (const auto& [error, name] : kNames) {
        EXPECT_THAT(SocketErrorDescription(error),
                    AllOf(StartsWith(std::string("WSA") + name + " "), EndsWith(".")))
            << error;
    }
}

}  // namespace
}  // namespace kesto
