// The time stamp with which each line of a log file begins, the plug-in's and the bridge's alike.
#pragma once

namespace kesto {

struct LogStamp {
    char text[32];  // "YEAR/MONTH/DAY HOUR:MINUTE:SECOND: ", the local time
};

LogStamp LogStampNow();

}  // namespace kesto
