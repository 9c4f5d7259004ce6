#include "apps/znv/names.h"

#include <cstdint>
#include <vector>

#include <fmt/format.h>

namespace znv::cli {
namespace {

constexpr size_t kMaximumNameBytes = 255;

struct CodePoint {
    int32_t value;  // -1: a byte that does not start valid UTF-8
    size_t length;
};

CodePoint decodeAt(std::string_view s, size_t i) {
    auto byte = [&](size_t k) { return static_cast<uint8_t>(s[k]); };
    uint8_t b = byte(i);
    if (b < 0x80) return {b, 1};
    size_t length = b >= 0xf0 && b <= 0xf4 ? 4 : b >= 0xe0 ? 3 : b >= 0xc2 && b < 0xe0 ? 2 : 0;
    if (length == 0 || i + length > s.size()) return {-1, 1};
    int32_t value = b & (0xff >> (length + 1));
    for (size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xc0) != 0x80) return {-1, 1};
        value = (value << 6) | (byte(i + k) & 0x3f);
    }
    static const int32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (value < smallest[length] || value > 0x10ffff || (value >= 0xd800 && value <= 0xdfff)) {
        return {-1, 1};
    }
    return {value, length};
}

bool isControl(int32_t c) {
    return c < 0x20 || (c >= 0x7f && c <= 0x9f);
}

// Characters that change how the text around them is shown.
bool isLayoutControl(int32_t c) {
    return c == 0x2028 || c == 0x2029 || (c >= 0x202a && c <= 0x202e) ||
           (c >= 0x2066 && c <= 0x2069) || c == 0x200e || c == 0x200f || c == 0x061c;
}

bool isWide(int32_t c) {
    return (c >= 0x1100 && c <= 0x115f) || (c >= 0x2e80 && c <= 0xa4cf && c != 0x303f) ||
           (c >= 0xac00 && c <= 0xd7a3) || (c >= 0xf900 && c <= 0xfaff) ||
           (c >= 0xfe30 && c <= 0xfe4f) || (c >= 0xff00 && c <= 0xff60) ||
           (c >= 0xffe0 && c <= 0xffe6) || (c >= 0x1f300 && c <= 0x1f64f) ||
           (c >= 0x1f900 && c <= 0x1f9ff) || (c >= 0x20000 && c <= 0x3fffd);
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The longest prefix of `s` of at most `bytes` bytes that ends on a character
// boundary.
std::string_view utf8Prefix(std::string_view s, size_t bytes) {
    if (s.size() <= bytes) return s;
    size_t end = bytes;
    while (end > 0 && (static_cast<uint8_t>(s[end]) & 0xc0) == 0x80)
        --end;
    return s.substr(0, end);
}

// Splits "name.ext" into base and ".ext" when the extension is short enough
// to be worth keeping whole.
std::pair<std::string_view, std::string_view> splitExtension(std::string_view name) {
    size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0 || name.size() - dot > 16) return {name, {}};
    return {name.substr(0, dot), name.substr(dot)};
}

// Latin-1 bytes as UTF-8.
std::string latin1ToUTF8(std::string_view s) {
    std::string out;
    for (char ch : s) {
        auto c = static_cast<uint8_t>(ch);
        if (c < 0x80) {
            out += ch;
        } else {
            out += static_cast<char>(0xc0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3f));
        }
    }
    return out;
}

std::string lower(std::string_view s) {
    std::string out(s);
    for (auto& c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t'))
        s.remove_suffix(1);
    return s;
}

}  // namespace

bool isUTF8(std::string_view text) {
    for (size_t i = 0; i < text.size();) {
        CodePoint c = decodeAt(text, i);
        if (c.value < 0) return false;
        i += c.length;
    }
    return true;
}

std::string escapeControls(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        CodePoint cp = decodeAt(text, i);
        if (cp.value < 0) {
            out += fmt::format("\\x{:02x}", static_cast<uint8_t>(text[i]));
        } else if (cp.value == '\n') {
            out += "\\n";
        } else if (cp.value == '\r') {
            out += "\\r";
        } else if (cp.value == '\t') {
            out += "\\t";
        } else if (cp.value < 0x80 && isControl(cp.value)) {
            out += fmt::format("\\x{:02x}", cp.value);
        } else if (isControl(cp.value) || isLayoutControl(cp.value)) {
            out += fmt::format("\\u{:04x}", cp.value);
        } else {
            out.append(text.substr(i, cp.length));
        }
        i += cp.length;
    }
    return out;
}

std::string percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            int hi = hexValue(text[i + 1]), lo = hexValue(text[i + 2]);
            if (hi >= 0 && lo >= 0) {
                out += static_cast<char>(hi * 16 + lo);
                i += 2;
                continue;
            }
        }
        out += text[i];
    }
    return out;
}

std::string safeFileName(std::string_view name) {
    std::string cleaned;
    for (size_t i = 0; i < name.size();) {
        CodePoint cp = decodeAt(name, i);
        if (cp.value == '/' || cp.value == 0) {
            cleaned += '_';
        } else if (cp.value >= 0 && !isControl(cp.value) && !isLayoutControl(cp.value)) {
            cleaned.append(name.substr(i, cp.length));
        }
        i += cp.length;
    }
    if (cleaned.empty() || cleaned.front() == '.') return {};
    if (cleaned.size() > kMaximumNameBytes) {
        auto [base, extension] = splitExtension(cleaned);
        cleaned = std::string(utf8Prefix(base, kMaximumNameBytes - extension.size())) +
                  std::string(extension);
    }
    return cleaned;
}

std::string numberedFileName(const std::string& name, int n) {
    std::string suffix = fmt::format(" ({})", n);
    auto [base, extension] = splitExtension(name);
    size_t room = kMaximumNameBytes - suffix.size() - extension.size();
    return std::string(utf8Prefix(base, room)) + suffix + std::string(extension);
}

std::string contentDispositionFilename(std::string_view header) {
    std::string plain, extended;
    size_t i = header.find(';');
    while (i != std::string_view::npos && i < header.size()) {
        ++i;  // past ';'
        size_t eq = header.find('=', i);
        if (eq == std::string_view::npos) break;
        std::string key = lower(trim(header.substr(i, eq - i)));
        size_t at = eq + 1;
        while (at < header.size() && (header[at] == ' ' || header[at] == '\t'))
            ++at;
        std::string value;
        if (at < header.size() && header[at] == '"') {
            for (++at; at < header.size() && header[at] != '"'; ++at) {
                if (header[at] == '\\' && at + 1 < header.size()) ++at;
                value += header[at];
            }
            i = header.find(';', at);
        } else {
            size_t end = header.find(';', at);
            value = std::string(trim(header.substr(
                at, end == std::string_view::npos ? std::string_view::npos : end - at)));
            i = end;
        }
        if (key == "filename") {
            plain = value;
        } else if (key == "filename*") {
            // charset'language'percent-encoded
            size_t first = value.find('\'');
            size_t second = first == std::string::npos ? first : value.find('\'', first + 1);
            if (second == std::string::npos) continue;
            std::string charset = lower(value.substr(0, first));
            std::string decoded = percentDecode(value.substr(second + 1));
            if (charset == "utf-8") {
                extended = decoded;
            } else if (charset == "iso-8859-1") {
                extended = latin1ToUTF8(decoded);
            }
        }
    }
    return extended.empty() ? plain : extended;
}

size_t displayWidth(std::string_view text) {
    size_t width = 0;
    for (size_t i = 0; i < text.size();) {
        CodePoint cp = decodeAt(text, i);
        width += cp.value >= 0 && isWide(cp.value) ? 2 : 1;
        i += cp.length;
    }
    return width;
}

std::string fitWidth(std::string_view text, size_t width, bool keepEnd) {
    if (displayWidth(text) <= width) return std::string(text);
    if (width < 4) return std::string(width, '.');
    std::vector<std::pair<size_t, size_t>> chars;  // offset, columns
    for (size_t i = 0; i < text.size();) {
        CodePoint cp = decodeAt(text, i);
        chars.emplace_back(i, cp.value >= 0 && isWide(cp.value) ? 2 : 1);
        i += cp.length;
    }
    size_t room = width - 3, used = 0;
    if (keepEnd) {
        size_t k = chars.size();
        while (k > 0 && used + chars[k - 1].second <= room)
            used += chars[--k].second;
        return "..." + std::string(text.substr(k < chars.size() ? chars[k].first : text.size()));
    }
    size_t k = 0;
    while (k < chars.size() && used + chars[k].second <= room)
        used += chars[k++].second;
    return std::string(text.substr(0, k < chars.size() ? chars[k].first : text.size())) + "...";
}

}  // namespace znv::cli
