// The fuzz targets, one for each part. PART names the function that gets the inputs.
#include <algorithm>
#include <cstdlib>
#include <string>

#include "base/clamd_words.h"
#include "bridge/framing.h"
#include "host/check/ini_lint.h"

namespace kesto {
using namespace host;
using namespace bridge;

const auto Expect = [](bool holds) { return holds ? void() : abort(); };

// A client's bytes come out the same whether they come in pieces or whole, and undoing the shift changes data
// only. The first byte is the size of the pieces.
void bridge_framing(const std::string& text) {
    const auto* const client = reinterpret_cast<const uint8_t*>(text.data()) + 1;
    const size_t command = text.empty() ? 0 : FindCommand(client, text.size() - 1).size;
    if (text.size() < 2 + command) {
        return;
    }
    const std::string chunks = text.substr(1 + command);
    size_t ends[2];
    std::string bytes[2] = {chunks, chunks};
    uint64_t data_bytes = 0;
    for (const bool cut : {false, true}) {
        const size_t piece = cut ? static_cast<uint8_t>(text[0]) + 1u : chunks.size();
        ChunkStream stream;
        size_t& used = ends[cut] = 0;
        for (auto state = StreamState::kGoesOn; state == StreamState::kGoesOn && used < chunks.size();) {
            const size_t next = std::min(piece, chunks.size() - used);
            auto* const at = reinterpret_cast<uint8_t*>(bytes[cut].data()) + used;
            const ChunksFollowed followed = FollowChunks(stream, at, next, true);
            state = followed.state;
            used += followed.used;
            Expect(followed.used == next || (followed.used < next && state != StreamState::kGoesOn));
        }
        data_bytes = stream.data_bytes;
    }
    Expect(ends[0] == ends[1] && bytes[0] == bytes[1]);
    for (size_t i = 0; i < chunks.size(); ++i) {
        const int shifted = static_cast<uint8_t>(bytes[0][i] - chunks[i]);
        Expect(shifted <= 1);
        data_bytes -= static_cast<uint64_t>(shifted);
    }
    Expect(data_bytes == 0);
}

// Every finding is about a line of the file, and has a text.
void ini_lint(const std::string& text) {
    const auto ends_line = [](char c) { return c == '\n' || c == '\r'; };
    const int lines = static_cast<int>(std::count_if(text.begin(), text.end(), ends_line)) + 1;
    for (const IniFinding& each : LintIni(text)) {
        const int line = static_cast<int>(each.line);
        Expect(line >= 1 && line <= lines && !each.text.empty() && !each.remedy.empty());
    }
}

// The verdict's text is a part of the reply.
void reply_verdict(const std::string& reply) {
    Expect(reply.find(VerdictOfReply(reply).text) != reply.npos);
}

}  // namespace kesto

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kesto::PART(std::string(data, data + size));
    return 0;
}
