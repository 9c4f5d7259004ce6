// The emulator's multipart parser on any body, fed in pieces of any size:
// callbacks come in order (data and end only inside a part), a finished body
// has every part ended, and the parts do not depend on how the body was cut.
//
// Input: one byte of piece size, a boundary line ending in '\n', the body.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "apps/emulator/multipart.h"

namespace {

struct Parsed {
    bool finished = false;
    std::vector<std::string> parts;  // name, then content
};

Parsed parse(const std::string& boundary, const std::string& body, size_t piece) {
    Parsed out;
    bool inPart = false;
    znv::emulator::MultipartParser::Callbacks callbacks;
    callbacks.partBegin = [&](const znv::emulator::MultipartPartHeaders& headers) {
        if (inPart) std::abort();
        inPart = true;
        out.parts.push_back(headers.name);
        out.parts.emplace_back();
        return true;
    };
    callbacks.partData = [&](const char* data, size_t size) {
        if (!inPart) std::abort();
        out.parts.back().append(data, size);
        return true;
    };
    callbacks.partEnd = [&] {
        if (!inPart) std::abort();
        inPart = false;
        return true;
    };
    znv::emulator::MultipartParser parser(boundary, callbacks);
    bool fed = true;
    for (size_t at = 0; at < body.size() && fed; at += piece)
        fed = parser.feed(body.data() + at, std::min(piece, body.size() - at));
    out.finished = fed && parser.finish();
    if (out.finished && inPart) std::abort();
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
    const size_t newline = input.find('\n');
    if (newline == std::string::npos) return 0;
    const std::string boundary = input.substr(0, newline);
    const std::string body = input.substr(newline + 1);
    (void)znv::emulator::MultipartParser::boundaryFromContentType("multipart/form-data; boundary=" +
                                                                  boundary);
    (void)znv::emulator::MultipartParser::boundaryFromContentType(boundary);
    if (boundary.empty()) return 0;

    const Parsed whole = parse(boundary, body, body.size() + 1);
    const Parsed cut = parse(boundary, body, 1 + data[0] % 64);
    if (whole.finished != cut.finished) std::abort();
    if (whole.finished && whole.parts != cut.parts) std::abort();
    return 0;
}
