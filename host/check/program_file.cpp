#include "host/check/program_file.h"

#include <cstring>
#include <optional>

namespace kesto::host {
namespace {

// Offsets and values of the format in which Windows keeps programs.
constexpr size_t kHeaderOffsetAt = 0x3C;
constexpr size_t kMachineAt = 4;  // these from the header's beginning on
constexpr size_t kSectionCountAt = 6;
constexpr size_t kOptionalSizeAt = 20;
constexpr size_t kTraitsAt = 22;
constexpr size_t kOptionalAt = 24;
constexpr size_t kSectionSize = 40;
constexpr size_t kRawSizeAt = 16;  // these within a section's entry
constexpr size_t kRawAt = 20;
constexpr uint16_t kMachine32 = 0x014C;
constexpr uint16_t kTraitExecutable = 0x0002;
constexpr uint16_t kTraitLibrary = 0x2000;

template <typename Number>
std::optional<Number> NumberAt(std::string_view bytes, size_t offset) {
    Number number;
    if (offset > bytes.size() || bytes.size() - offset < sizeof number) {
        return std::nullopt;
    }
    std::memcpy(&number, bytes.data() + offset, sizeof number);
    return number;
}

}  // namespace

std::string ProgramFault(std::string_view bytes, bool runs_64_bit) {
    static const std::string kCut = "is cut short";
    if (bytes.empty()) {
        return "is empty";
    }
    if (!bytes.starts_with("MZ")) {
        return "is no program";
    }
    const auto header = NumberAt<uint32_t>(bytes, kHeaderOffsetAt);
    if (!header || *header > bytes.size() || bytes.size() - *header < kOptionalAt) {
        return kCut;
    }
    bytes.remove_prefix(*header);
    if (!bytes.starts_with(std::string_view("PE\0\0", 4))) {
        return "is no Windows program";
    }
    const auto traits = *NumberAt<uint16_t>(bytes, kTraitsAt);
    if ((traits & kTraitLibrary) != 0 || (traits & kTraitExecutable) == 0) {
        return "is a library, no program";
    }
    if (*NumberAt<uint16_t>(bytes, kMachineAt) != kMachine32 && !runs_64_bit) {
        return "is a program for another kind of processor than this machine's";
    }
    const auto sections = *NumberAt<uint16_t>(bytes, kSectionCountAt);
    size_t entry = kOptionalAt + *NumberAt<uint16_t>(bytes, kOptionalSizeAt);
    for (uint16_t i = 0; i < sections; ++i, entry += kSectionSize) {
        const auto size = NumberAt<uint32_t>(bytes, entry + kRawSizeAt);
        const auto at = NumberAt<uint32_t>(bytes, entry + kRawAt);
        if (!size || !at || uint64_t{*at} + *size > bytes.size() + *header) {
            return kCut;
        }
    }
    return "";
}

}  // namespace kesto::host
