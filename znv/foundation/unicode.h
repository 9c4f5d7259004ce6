// Small Unicode helpers for text rules that must hold beyond ASCII (file-name
// sanitising, index-list parsing). No locale and no external library.
//
// Contract
// - Pure functions, callable from any thread.
// - Decoding never fails: each byte that does not begin a well-formed UTF-8
//   sequence (stray continuation bytes, truncated or overlong sequences,
//   surrogates, values past U+10FFFF) decodes as one code point
//   `ZNVInvalidCodePoint` spanning that single byte, and decoding resumes at
//   the next byte.
#pragma once

#include <cstddef>
#include <string_view>

namespace znv {

inline constexpr char32_t ZNVInvalidCodePoint = 0xFFFFFFFF;

struct ZNVDecodedCodePoint {
    char32_t codePoint;  // ZNVInvalidCodePoint for a malformed byte
    size_t length;       // bytes consumed, 1 to 4
};

// Decodes the code point that starts at `offset` (which must be < text.size()).
ZNVDecodedCodePoint ZNVDecodeUTF8(std::string_view text, size_t offset);

// Letters, marks and numbers (general categories L*, M*, N*) of every script.
bool ZNVUnicodeIsAlphanumeric(char32_t codePoint);

// White space and line breaks: tab, line feed, vertical tab, form feed,
// carriage return, space, U+0085, U+00A0, U+1680, U+2000 to U+200A, U+2028,
// U+2029, U+202F, U+205F and U+3000.
bool ZNVUnicodeIsWhitespaceOrNewline(char32_t codePoint);

// Number of UTF-16 code units the code point takes (2 above U+FFFF, else 1;
// an invalid byte counts as the one unit of its replacement character).
inline size_t ZNVUTF16Length(char32_t codePoint) {
    return codePoint != ZNVInvalidCodePoint && codePoint > 0xFFFF ? 2 : 1;
}

}  // namespace znv
