#include "znv/foundation/unicode.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace znv {
namespace {

struct CodePointRange {
    uint32_t first;
    uint32_t last;
};

constexpr CodePointRange kAlphanumeric[] = {
#include "znv/foundation/alphanumeric_table.inc"
};

}  // namespace

ZNVDecodedCodePoint ZNVDecodeUTF8(std::string_view text, size_t offset) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[offset + i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) return {lead, 1};

    size_t length;
    char32_t value;
    char32_t minimum;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2, value = lead & 0x1F, minimum = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3, value = lead & 0x0F, minimum = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4, value = lead & 0x07, minimum = 0x10000;
    } else {
        return {ZNVInvalidCodePoint, 1};
    }
    if (text.size() - offset < length) return {ZNVInvalidCodePoint, 1};
    for (size_t i = 1; i < length; ++i) {
        const unsigned char next = byte(i);
        if ((next & 0xC0) != 0x80) return {ZNVInvalidCodePoint, 1};
        value = (value << 6) | (next & 0x3F);
    }
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
        return {ZNVInvalidCodePoint, 1};
    }
    return {value, length};
}

bool ZNVUnicodeIsAlphanumeric(char32_t codePoint) {
    if (codePoint < 0x80) {
        return (codePoint >= '0' && codePoint <= '9') || (codePoint >= 'A' && codePoint <= 'Z') ||
               (codePoint >= 'a' && codePoint <= 'z');
    }
    if (codePoint > 0x10FFFF) return false;
    const auto* end = std::end(kAlphanumeric);
    const auto* it = std::upper_bound(
        std::begin(kAlphanumeric), end, static_cast<uint32_t>(codePoint),
        [](uint32_t value, const CodePointRange& range) { return value < range.first; });
    if (it == std::begin(kAlphanumeric)) return false;
    --it;
    return codePoint <= it->last;
}

bool ZNVUnicodeIsWhitespaceOrNewline(char32_t codePoint) {
    switch (codePoint) {
        case 0x09:
        case 0x0A:
        case 0x0B:
        case 0x0C:
        case 0x0D:
        case 0x20:
        case 0x85:
        case 0xA0:
        case 0x1680:
        case 0x2028:
        case 0x2029:
        case 0x202F:
        case 0x205F:
        case 0x3000:
            return true;
        default:
            return codePoint >= 0x2000 && codePoint <= 0x200A;
    }
}

}  // namespace znv
