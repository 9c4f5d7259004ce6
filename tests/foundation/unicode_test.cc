#include "znv/foundation/unicode.h"

#include <gtest/gtest.h>

#include <string>

namespace znv {
namespace {

std::u32string decodeAll(const std::string& text) {
    std::u32string out;
    for (size_t i = 0; i < text.size();) {
        auto decoded = ZNVDecodeUTF8(text, i);
        EXPECT_GE(decoded.length, 1u);
        out.push_back(decoded.codePoint);
        i += decoded.length;
    }
    return out;
}

TEST(Unicode, DecodesWellFormedAndResynchronisesAfterMalformedBytes) {
    EXPECT_EQ(decodeAll("aé中𠀀"), (std::u32string{U'a', U'é', U'中', U'\U00020000'}));

    const char32_t bad = ZNVInvalidCodePoint;
    // Stray continuation byte, overlong "/", encoded surrogate, past U+10FFFF,
    // and a sequence cut off by the end of the text.
    EXPECT_EQ(decodeAll("\x80x"), (std::u32string{bad, U'x'}));
    EXPECT_EQ(decodeAll("\xC0\xAF"), (std::u32string{bad, bad}));
    EXPECT_EQ(decodeAll("\xED\xA0\x80"), (std::u32string{bad, bad, bad}));
    EXPECT_EQ(decodeAll("\xF4\x90\x80\x80"), (std::u32string{bad, bad, bad, bad}));
    EXPECT_EQ(decodeAll("a\xE4\xB8"), (std::u32string{U'a', bad, bad}));
    // A lead byte followed by an ASCII byte: the ASCII byte survives.
    EXPECT_EQ(decodeAll("\xC3("), (std::u32string{bad, U'('}));
}

TEST(Unicode, AlphanumericCoversTheWorldsScripts) {
    const char32_t alphanumeric[] = {
        U'0',      U'9',  U'A',          U'z', U'ß', U'é',
        U'Ø',      U'ÿ',  U'Ł',          U'ž', U'ǅ', U'ɐ',  // Latin
        U'Ω',      U'λ',                                    // Greek
        U'Ж',      U'я',  U'ё',                             // Cyrillic
        U'Ա',      U'ք',                                    // Armenian
        U'א',      U'ת',                                    // Hebrew
        U'ب',      U'ي',  U'٣',                             // Arabic, digit
        U'क',      U'ि',  U'्',           U'५',              // Devanagari letter, marks, digit
        U'ক',      U'த',  U'ಕ',          U'അ',              // Bengali, Tamil, Kannada, Malayalam
        U'ก',      U'๓',                                    // Thai
        U'中',     U'龍', U'\U00020000',                    // CJK, also beyond the BMP
        U'あ',     U'カ', U'ー',                            // Hiragana, Katakana
        U'한',     U'ᄀ',                                   // Hangul
        U'\u0301',                                          // combining acute accent
        U'²',      U'½',  U'Ⅻ',                             // other numbers
    };
    for (char32_t c : alphanumeric) {
        EXPECT_TRUE(ZNVUnicodeIsAlphanumeric(c)) << std::hex << static_cast<uint32_t>(c);
    }
    // Spaces, punctuation, symbols, emoji, the replacement character, and
    // what is no character at all.
    std::u32string other = U" -_.(/\\*\u00A0©€、。\u3000\U0001F600\uFFFD\U0010FFFF";
    other += {U'\0', char32_t{0xD800}, ZNVInvalidCodePoint};
    for (char32_t c : other) {
        EXPECT_FALSE(ZNVUnicodeIsAlphanumeric(c)) << std::hex << static_cast<uint32_t>(c);
    }
}

}  // namespace
}  // namespace znv
