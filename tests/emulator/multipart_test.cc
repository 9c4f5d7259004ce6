#include "apps/emulator/multipart.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/emulator/fixture.h"

namespace znv::emulator {
namespace {

struct Part {
    std::string name, filename, contentType, data;
    bool ended = false;
};

struct Outcome {
    bool fed = true;
    bool finished = false;
    std::vector<Part> parts;
    std::string error;
};

// Parses `body` fed in pieces of `piece` bytes.
Outcome parse(const std::string& boundary, const std::string& body, size_t piece) {
    Outcome out;
    MultipartParser::Callbacks callbacks;
    callbacks.partBegin = [&](const MultipartPartHeaders& h) {
        out.parts.push_back({h.name, h.filename, h.contentType, "", false});
        return true;
    };
    callbacks.partData = [&](const char* data, size_t size) {
        out.parts.back().data.append(data, size);
        return true;
    };
    callbacks.partEnd = [&] {
        out.parts.back().ended = true;
        return true;
    };
    MultipartParser parser(boundary, callbacks);
    for (size_t at = 0; at < body.size() && out.fed; at += piece) {
        out.fed = parser.feed(body.data() + at, std::min(piece, body.size() - at));
    }
    out.finished = out.fed && parser.finish();
    out.error = parser.error();
    return out;
}

TEST(MultipartParser, LibraryBatchSurvivesEverySplitAndDelimiterLookalikes) {
    const std::string boundary = "0xKhTmLbOuNdArY-6F1C2A9E-5B7D-4C3A-9E21-0D4B8F7A1C55";
    // Content that ends in or contains prefixes of the delimiter must come
    // through byte for byte.
    std::string tricky = "\r\n--" + boundary.substr(0, boundary.size() - 1) + "X\r\n-";
    std::string binary;
    for (int i = 0; i < 300; ++i)
        binary.push_back(static_cast<char>(i * 7));
    binary += "\r\n\r\n--\r";
    std::string body = test::batchBody(boundary, {{3, tricky}, {4, binary}, {5, ""}});
    for (size_t piece : {size_t{1}, size_t{2}, size_t{3}, size_t{7}, size_t{64}, body.size()}) {
        auto out = parse(boundary, body, piece);
        ASSERT_TRUE(out.finished) << "piece " << piece << ": " << out.error;
        ASSERT_EQ(out.parts.size(), 3u);
        EXPECT_EQ(out.parts[0].name, "chunkData.3");
        EXPECT_EQ(out.parts[0].filename, "3.chunk");
        EXPECT_EQ(out.parts[0].contentType, "application/octet-stream");
        EXPECT_EQ(out.parts[0].data, tricky) << "piece " << piece;
        EXPECT_EQ(out.parts[1].data, binary) << "piece " << piece;
        EXPECT_EQ(out.parts[2].data, "");
        EXPECT_TRUE(out.parts[2].ended);
    }
}

TEST(MultipartParser, LargeContentWithScatteredNearDelimitersComesThroughIntact) {
    const std::string boundary = "0xKhTmLbOuNdArY-0D4B8F7A-1C55-4C3A-9E21-6F1C2A9E5B7D";
    const std::string delimiter = "\r\n--" + boundary;
    std::string content;
    uint32_t state = 12345;
    auto next = [&] { return state = state * 1103515245u + 12345u; };
    while (content.size() < (1u << 20)) {
        // Random bytes, now and then a delimiter cut short or with one byte
        // changed, which the search must step over without losing a byte.
        for (int i = 0; i < 1000; ++i)
            content.push_back(static_cast<char>(next() >> 24));
        // ('z' is in no delimiter: random bytes must not complete a cut one.)
        std::string lookalike = delimiter.substr(0, 1 + next() % (delimiter.size() - 1)) + "z";
        if (next() % 2) {
            lookalike = delimiter;
            lookalike[next() % delimiter.size()] ^= 0x20;
        }
        content += lookalike;
    }
    // Two large parts, then parts of every length up to 200 bytes so that the
    // delimiters fall at every offset within the search's blocks.
    std::vector<std::pair<uint64_t, std::string>> chunks = {{0, content},
                                                            {1, content.substr(0, 4097)}};
    for (size_t length = 0; length <= 200; ++length)
        chunks.emplace_back(chunks.size(), content.substr(next() % 4096, length));
    std::string body = test::batchBody(boundary, chunks);
    for (size_t piece : {size_t{4093}, size_t{65536}, body.size()}) {
        auto out = parse(boundary, body, piece);
        ASSERT_TRUE(out.finished) << "piece " << piece << ": " << out.error;
        ASSERT_EQ(out.parts.size(), chunks.size());
        for (size_t i = 0; i < chunks.size(); ++i) {
            ASSERT_TRUE(out.parts[i].data == chunks[i].second)
                << "piece " << piece << ", part " << i;
        }
    }
}

TEST(MultipartParser, AcceptsOtherWellFormedShapes) {
    // No CRLF before the first delimiter, a preamble, lower-case headers,
    // unquoted parameters, padding after a delimiter and an epilogue.
    std::string body =
        "preamble text\r\n--B\r\ncontent-disposition: form-data; name=a\r\n\r\nalpha"
        "\r\n--B  \r\nContent-Disposition: form-data; filename=\"x;y.bin\"; name=\"b\"\r\n\r\n"
        "beta\r\n--B--\r\nepilogue";
    auto out = parse("B", body, 5);
    ASSERT_TRUE(out.finished) << out.error;
    ASSERT_EQ(out.parts.size(), 2u);
    EXPECT_EQ(out.parts[0].name, "a");
    EXPECT_EQ(out.parts[0].data, "alpha");
    EXPECT_EQ(out.parts[1].name, "b");
    EXPECT_EQ(out.parts[1].filename, "x;y.bin");
    EXPECT_EQ(out.parts[1].data, "beta");
}

TEST(MultipartParser, RejectsMalformedBodies) {
    const std::string good = test::batchBody("B", {{0, "data"}});
    struct Case {
        const char* what;
        std::string body;
    };
    const Case cases[] = {
        {"no closing delimiter", good.substr(0, good.size() - 6)},
        {"ends inside the headers", "\r\n--B\r\nContent-Disposition: form-data; na"},
        {"no delimiter at all", "just some bytes"},
        {"garbage after a delimiter", "\r\n--Bxyz\r\n\r\ndata\r\n--B--"},
        {"part without a name", "\r\n--B\r\nContent-Disposition: form-data\r\n\r\nx\r\n--B--"},
        {"no disposition", "\r\n--B\r\nContent-Type: text/plain\r\n\r\nx\r\n--B--"},
        {"empty body", ""},
    };
    for (const auto& c : cases) {
        auto out = parse("B", c.body, 3);
        EXPECT_FALSE(out.finished) << c.what;
        EXPECT_FALSE(out.error.empty()) << c.what;
    }
}

TEST(MultipartParser, ReadsTheBoundaryFromTheContentType) {
    using P = MultipartParser;
    EXPECT_EQ(P::boundaryFromContentType("multipart/form-data; boundary=abc"), "abc");
    EXPECT_EQ(P::boundaryFromContentType("Multipart/Form-Data;BOUNDARY=\"a b;c\""), "a b;c");
    EXPECT_EQ(P::boundaryFromContentType("multipart/form-data; charset=x; boundary=z"), "z");
    EXPECT_FALSE(P::boundaryFromContentType("multipart/form-data"));
    EXPECT_FALSE(P::boundaryFromContentType("multipart/form-data; boundary="));
    EXPECT_FALSE(P::boundaryFromContentType("multipart/mixed; boundary=abc"));
    EXPECT_FALSE(P::boundaryFromContentType("application/octet-stream"));
}

}  // namespace
}  // namespace znv::emulator
