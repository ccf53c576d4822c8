// What bridge.ini says, for the bridge and for the updater. Every key may be missing; a file with
// anything that the bridge cannot follow exactly is refused, because a guess could let mail through
// unscanned.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/server_address.h"

namespace kesto {

struct BridgeSettings {
    ServerAddress listen = *ParseServerAddress("127.0.0.1:3313");                 // an IPv4 address
    std::vector<ServerAddress> upstreams{*ParseServerAddress("127.0.0.1:3310")};  // each once
    bool decrypt = true;
    unsigned idle = 30;       // seconds without a byte after which a client or server is given up
    unsigned keep = 128;      // MB for the streams of scans under way, so that they can be repeated; 0: none
    unsigned wait = 60;       // seconds for which scans wait while no server accepts
    unsigned verdict = 120;   // seconds from a stream's end to its verdict
    unsigned clients = 1000;  // at a time
    std::string logfile;      // as written, in the ANSI code page; empty: bridge.log, if it exists

    // The section [updater].
    std::string command;      // the command line of an updater; empty: the servers update themselves
    unsigned timeout = 900;   // seconds for the command
    unsigned signatures = 7;  // days from which on they are too old
};

// What was read of the file.
struct BridgeIni {
    BridgeSettings settings;            // in effect if there are no problems
    std::vector<std::string> problems;  // in words; with any of these the bridge does not start
    // Problems of the section [updater]. With any of these the updater does nothing; mail is scanned all the
    // same.
    std::vector<std::string> updater_problems;
    bool readable = true;  // false: that is the problem; another program may have it open
};

// "listen=127.0.0.1:3313 upstreams=... decrypt=1 ...": what is in effect, without the log.
std::string SettingsText(const BridgeSettings& settings);

// Whether a server is the bridge itself, which listens there and would pass its scans to itself for ever.
// `own` are the addresses of this machine (ParseHost).
bool IsBridgeItself(const ServerAddress& server, const ServerAddress& listen,
                    const std::vector<ServerAddress>& own);

// `text` is the whole file in the ANSI code page; any bytes will do. No server may be the bridge itself,
// neither where it is to listen nor where it `listens` until it is restarted.
BridgeIni ReadBridgeSettings(std::string_view text, const std::vector<ServerAddress>& own,
                             const std::optional<ServerAddress>& listens = {});

}  // namespace kesto
