// The connection to an engine: what it does, how long it waits, and the account that it gives.
#include <gmock/gmock.h>

#include "plugin/net/socket_connection.h"
#include "plugin/net/socket_errors.h"
#include "tests/support/losses.h"
#include "tests/support/scripted_engine.h"

namespace kesto {
namespace {

using std::chrono::steady_clock;
using namespace testing;

double SecondsSince(steady_clock::time_point begin) {
    return std::chrono::duration<double>(steady_clock::now() - begin).count();
}

TEST(Connection, AccountsForEachFailureAndLosesNothing) {
    const uint16_t closed = FreePort();
    const UnansweredPort silent;
    const std::string numeric =
        "\nThis is an IPV4 numeric address.\nHostname to IP address resolution not needed.\n";
    const std::tuple<const char*, uint16_t, double, std::string> cases[] = {
        // the last: of the account
        {"127.0.0.1", closed, 0,
         numeric + "Connect function failed.\nWSAECONNREFUSED No connection could be made because the target "
                   "machine actively refused it."},
        {"127.0.0.1", silent.Port(), 0.3, numeric + "Connect function failed.\nWSAETIMEDOUT A connection"},
        {"localhost", silent.Port(), 0.3, "\nConnect function failed.\nWSAETIMEDOUT A connection"},
        {"", 1, 0, "\nCannot connect, hostname is zero length"},
        {nullptr, 1, 0, "\nCannot connect, hostname is NULL"},
        {"no-such-host.invalid", 1, 0, "maxWaitMs: 300\nDNS "},
        {"256.0.0.1", 1, 0, "maxWaitMs: 300\nDNS "},  // a name, as the next
        {"127.0.0.1.test", 1, 0, "maxWaitMs: 300\nDNS "},
    };
    SocketConnection connection;
    const std::string too_long(1001, 'h');
    for (const auto& [host, port, seconds, account] : cases) {
        SCOPED_TRACE(account);
        ExpectNothingLost(3, [&] {
            const auto begin = steady_clock::now();
            EXPECT_FALSE(connection.Connect(host, port, false, 300));
            if (seconds > 0) {
                EXPECT_NEAR(SecondsSince(begin), seconds, 0.15);
            }
            const std::string told = connection.LastErrorText();
            EXPECT_THAT(told, StartsWith("Connect_Socket\nhostname: " + std::string(host ? host : "") +
                                         "\nport: " + std::to_string(port) + "\nssl: 0\nmaxWaitMs: 300\n"));
            EXPECT_THAT(told, HasSubstr(account));
            EXPECT_EQ(told.find("firewall") != std::string::npos,
                      told.find("\nError 0x") != std::string::npos);
            EXPECT_FALSE(connection.Connect(too_long.c_str(), 1, false, 300));  // not even looked up
            EXPECT_THAT(connection.LastErrorText(), HasSubstr("\nDNS lookup failed.\nWSAEINVAL"));
        });
    }
    EXPECT_TRUE(WaitFor([&] {
        EXPECT_FALSE(connection.Connect("localhost", closed, false, 0));
        return std::string(connection.LastErrorText()).ends_with("\nDNS timed out.");
    }));
}

// The result of an operation that leaves this in the account.
bool Told(const std::string& account, bool result, SocketConnection& by) {
    EXPECT_THAT(WithNul(by.LastErrorText()), HasSubstr(account));
    return result;
}

TEST(Connection, ConversesAndCanBeMadeAgain) {
    ScriptedEngine engine(ReplyingBytes(std::string("before\xFF") + "behind"));
    SocketConnection it;
    ReceivedText text;
    EXPECT_FALSE(Told("\nNo connection is established", it.ReceiveStringUntilByte(0, text), it));
    for (const char* host : {"localhost", "127.0.0.1"}) {
        ASSERT_TRUE(it.Connect(host, engine.Port(), false, 2000)) << it.LastErrorText();
        EXPECT_THAT(it.LastErrorText(), Not(HasSubstr("NODELAY")));
        EXPECT_FALSE(Told("\nSize of data to send is zero.", it.SendBytes("x", 0), it));
        EXPECT_FALSE(Told("\nSize of data to send is zero.", it.SendBytes(nullptr, 1), it));
        EXPECT_TRUE(Told(WithNul("SendBytes\nNumBytes: 6\nSuccess."), it.SendBytes("zPING", 6), it));
        EXPECT_TRUE(Told("ReceiveStringUntilByte\nbyteValue: 300", it.ReceiveStringUntilByte(300, text), it));
        EXPECT_EQ(text.View(), "before");  // 300 is taken as 255
        EXPECT_TRUE(it.Close(200));
        EXPECT_FALSE(Told("Close\nmaxWaitMs: 200\nNo connection to close", it.Close(200), it));
        EXPECT_FALSE(Told("\nNo connection is established", it.SendBytes("x", 1), it));
    }
    engine.Play(Replying("to its NUL"));
    it.NoDelay(true);
    ASSERT_TRUE(Told("\nSetting TCP_NODELAY\n", it.Connect("127.0.0.1", engine.Port(), false, 2000), it));
    EXPECT_TRUE(it.SendBytes("zPING", 6));
    EXPECT_TRUE(it.ReceiveStringUntilByte(-5, text));  // is taken as 0
    EXPECT_EQ(text.View(), "to its NUL");
    for (const EngineRequest& each : engine.Requests()) {
        EXPECT_EQ(each.raw, WithNul("zPING"));
    }
}

TEST(Connection, EndsItsWaitsAtTheirLimits) {
    ScriptedEngine silent(ReplyingBytes("stream: ", Then::kHolds)), deaf(kDeaf),
        leaving(ReplyingBytes("stream: "));
    SocketConnection it;
    it.MaxReadIdleMs(300);
    it.MaxSendIdleMs(600);
    ReceivedText text;
    text.Append("as it was");
    const auto ask = [&](const ScriptedEngine& engine) {
        return it.Connect("127.0.0.1", engine.Port(), false, 1000) && it.SendBytes("zPING", 6);
    };
    ASSERT_TRUE(ask(silent));
    auto begin = steady_clock::now();
    EXPECT_FALSE(Told("\nWaitForData timed out.", it.ReceiveStringUntilByte(0, text), it));
    EXPECT_NEAR(SecondsSince(begin), 0.3, 0.2);

    ASSERT_TRUE(ask(deaf));
    begin = steady_clock::now();
    EXPECT_FALSE(Told(WithNul("\nSocket send idle timeout\nFailed."),
                      it.SendBytes(std::string(32 << 20, 'x').data(), 32 << 20), it));
    EXPECT_NEAR(SecondsSince(begin), 0.8, 0.3);

    ASSERT_TRUE(ask(leaving));
    EXPECT_FALSE(Told("\nThe peer has closed the socket (TCP)", it.ReceiveStringUntilByte(0, text), it));
    EXPECT_EQ(text.View(), "as it was");
    leaving.Kill();
    EXPECT_TRUE(WaitFor([&] { return !it.SendBytes("x", 1); }));
    EXPECT_THAT(it.LastErrorText(), AllOf(HasSubstr("\nError sending on socket\nWSAE"),
                                          EndsWith("\nSocket send failed\nFailed.")));
}

TEST(Connection, ClosesWithTheObjectAndHandsOutItsTextInARingOfTen) {
    ScriptedEngine engine(ReplyingBytes("", Then::kHolds));
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
    std::string names;
    for (int error = 0; error < 12'000; ++error) {
        if (const char* const text = SocketErrorDescription(error)) {
            EXPECT_THAT(text, AllOf(StartsWith("WSA"), EndsWith(".")));
            names += std::to_string(error) + std::string(text).substr(3, strcspn(text, " ") - 2);
        }
    }
    EXPECT_EQ(
        names,
        "10013EACCES 10022EINVAL 10024EMFILE 10035EWOULDBLOCK 10036EINPROGRESS 10041EPROTOTYPE "
        "10043EPROTONOSUPPORT 10044ESOCKTNOSUPPORT 10047EAFNOSUPPORT 10048EADDRINUSE 10049EADDRNOTAVAIL "
        "10050ENETDOWN 10051ENETUNREACH 10053ECONNABORTED 10054ECONNRESET 10055ENOBUFS 10060ETIMEDOUT "
        "10061ECONNREFUSED 10093NOTINITIALISED 10106EPROVIDERFAILEDINIT 11001HOST_NOT_FOUND "
        "11004NO_DATA ");
}

}  // namespace
}  // namespace kesto
