#include "apps/emulator/multipart.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <vector>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace znv::emulator {
namespace {

constexpr size_t kMaxHeaderBlock = 16 * 1024;
constexpr size_t kMaxDelimiterPadding = 256;

std::string lower(std::string_view s) {
    std::string out(s);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t'))
        s.remove_suffix(1);
    return s;
}

// Splits a header value such as `form-data; name="a;b"; filename=x` at the
// semicolons that are outside quotes.
std::vector<std::string_view> splitParameters(std::string_view value) {
    std::vector<std::string_view> out;
    bool quoted = false;
    size_t start = 0;
    for (size_t i = 0; i < value.size(); ++i) {
        char c = value[i];
        if (quoted && c == '\\') {
            ++i;
        } else if (c == '"') {
            quoted = !quoted;
        } else if (c == ';' && !quoted) {
            out.push_back(trim(value.substr(start, i - start)));
            start = i + 1;
        }
    }
    out.push_back(trim(value.substr(start)));
    return out;
}

// A parameter value, unquoted when it is a quoted string.
std::string parameterValue(std::string_view raw) {
    raw = trim(raw);
    if (raw.size() >= 2 && raw.front() == '"' && raw.back() == '"') {
        std::string out;
        for (size_t i = 1; i + 1 < raw.size(); ++i) {
            if (raw[i] == '\\' && i + 2 < raw.size()) ++i;
            out.push_back(raw[i]);
        }
        return out;
    }
    return std::string(raw);
}

#if defined(__x86_64__)
// Candidates for a delimiter of `m` (at least 2) bytes are the positions
// where both its first and its last byte sit; 32 positions are tested at
// once and only candidates are compared whole. In chunk content the two bytes
// meet by chance once in 64 KiB, so this runs at the speed of the loads, a
// few times faster than Horspool's skips. Returns the first hit, or where the
// blocks ran out: the caller searches the rest (fewer than m + 31 bytes).
__attribute__((target("avx2"))) const char* scanBlocksAVX2(const char* text, const char* end,
                                                           std::string_view delimiter,
                                                           bool* found) {
    const size_t m = delimiter.size();
    const __m256i first = _mm256_set1_epi8(delimiter.front());
    const __m256i last = _mm256_set1_epi8(delimiter.back());
    const char* at = text;
    for (; end - at >= static_cast<ptrdiff_t>(m - 1 + 32); at += 32) {
        const __m256i head = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
        const __m256i tail = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + m - 1));
        auto mask = static_cast<uint32_t>(_mm256_movemask_epi8(
            _mm256_and_si256(_mm256_cmpeq_epi8(head, first), _mm256_cmpeq_epi8(tail, last))));
        for (; mask != 0; mask &= mask - 1) {
            const char* candidate = at + __builtin_ctz(mask);
            if (std::memcmp(candidate + 1, delimiter.data() + 1, m - 2) == 0) {
                *found = true;
                return candidate;
            }
        }
    }
    *found = false;
    return at;
}

const bool kHaveAVX2 = __builtin_cpu_supports("avx2");
#endif

}  // namespace

MultipartParser::MultipartParser(std::string boundary, Callbacks callbacks)
    : delimiter_("\r\n--" + boundary),
      searcher_(delimiter_.data(), delimiter_.data() + delimiter_.size()),
      callbacks_(std::move(callbacks)) {
    // The first delimiter may start the body without the CRLF that precedes
    // every other one; a virtual CRLF in front makes both forms look alike.
    buffer_ = "\r\n";
}

std::optional<std::string> MultipartParser::boundaryFromContentType(std::string_view contentType) {
    auto params = splitParameters(contentType);
    if (params.empty() || lower(params[0]) != "multipart/form-data") return std::nullopt;
    for (size_t i = 1; i < params.size(); ++i) {
        auto eq = params[i].find('=');
        if (eq == std::string_view::npos) continue;
        if (lower(trim(params[i].substr(0, eq))) != "boundary") continue;
        std::string boundary = parameterValue(params[i].substr(eq + 1));
        if (boundary.empty() || boundary.size() > 200) return std::nullopt;
        return boundary;
    }
    return std::nullopt;
}

bool MultipartParser::fail(std::string message) {
    if (state_ != State::Failed) {
        state_ = State::Failed;
        error_ = std::move(message);
    }
    buffer_.clear();
    return false;
}

bool MultipartParser::parseHeaders(std::string_view block, MultipartPartHeaders& headers) {
    bool sawDisposition = false;
    while (!block.empty()) {
        size_t eol = block.find("\r\n");
        std::string_view line = block.substr(0, eol);
        block = eol == std::string_view::npos ? std::string_view() : block.substr(eol + 2);
        if (line.empty()) continue;
        size_t colon = line.find(':');
        if (colon == std::string_view::npos || colon == 0) {
            return fail("malformed part header line");
        }
        std::string name = lower(trim(line.substr(0, colon)));
        std::string_view value = trim(line.substr(colon + 1));
        if (name == "content-disposition") {
            auto params = splitParameters(value);
            if (params.empty() || lower(params[0]) != "form-data") {
                return fail("part disposition is not form-data");
            }
            for (size_t i = 1; i < params.size(); ++i) {
                auto eq = params[i].find('=');
                if (eq == std::string_view::npos) continue;
                std::string key = lower(trim(params[i].substr(0, eq)));
                if (key == "name") headers.name = parameterValue(params[i].substr(eq + 1));
                if (key == "filename") {
                    headers.filename = parameterValue(params[i].substr(eq + 1));
                }
            }
            sawDisposition = true;
        } else if (name == "content-type") {
            headers.contentType = std::string(value);
        }
    }
    if (!sawDisposition) return fail("part without a Content-Disposition header");
    if (headers.name.empty()) return fail("part without a name");
    return true;
}

size_t MultipartParser::findDelimiter() const {
    return findDelimiter(buffer_.data(), buffer_.size());
}

// Long runs go by blocks where the processor has the instructions; the rest,
// and everything elsewhere, by Horspool's search, which skips close to a
// delimiter's length of chunk content at each step.
size_t MultipartParser::findDelimiter(const char* text, size_t n) const {
    const char* end = text + n;
    const char* from = text;
#if defined(__x86_64__)
    if (kHaveAVX2 && delimiter_.size() >= 2) {
        bool found = false;
        from = scanBlocksAVX2(text, end, delimiter_, &found);
        if (found) return static_cast<size_t>(from - text);
    }
#endif
    const char* hit = searcher_(from, end).first;
    return hit == end ? std::string::npos : static_cast<size_t>(hit - text);
}

bool MultipartParser::step(bool& progressed) {
    progressed = false;
    switch (state_) {
        case State::Preamble: {
            size_t pos = findDelimiter();
            if (pos == std::string::npos) {
                // Keep only what could still be the start of a delimiter.
                if (buffer_.size() >= delimiter_.size()) {
                    buffer_.erase(0, buffer_.size() - (delimiter_.size() - 1));
                }
                return true;
            }
            buffer_.erase(0, pos + delimiter_.size());
            state_ = State::AfterDelimiter;
            progressed = true;
            return true;
        }
        case State::AfterDelimiter: {
            if (buffer_.size() < 2) return true;
            if (buffer_.compare(0, 2, "--") == 0) {
                buffer_.clear();
                state_ = State::Epilogue;
                progressed = true;
                return true;
            }
            size_t eol = buffer_.find("\r\n");
            if (eol == std::string::npos) {
                if (buffer_.size() > kMaxDelimiterPadding) {
                    return fail("garbage after a boundary delimiter");
                }
                return true;
            }
            for (size_t i = 0; i < eol; ++i) {
                if (buffer_[i] != ' ' && buffer_[i] != '\t') {
                    return fail("garbage after a boundary delimiter");
                }
            }
            buffer_.erase(0, eol + 2);
            state_ = State::Headers;
            progressed = true;
            return true;
        }
        case State::Headers: {
            size_t end;
            size_t skip;
            if (buffer_.compare(0, 2, "\r\n") == 0) {
                end = 0;
                skip = 2;
            } else {
                end = buffer_.find("\r\n\r\n");
                skip = 4;
            }
            if (end == std::string::npos) {
                if (buffer_.size() > kMaxHeaderBlock) return fail("part headers too long");
                return true;
            }
            MultipartPartHeaders headers;
            if (!parseHeaders(std::string_view(buffer_).substr(0, end), headers)) return false;
            buffer_.erase(0, end + skip);
            if (callbacks_.partBegin && !callbacks_.partBegin(headers)) {
                return fail(error_.empty() ? "part rejected" : error_);
            }
            state_ = State::Content;
            progressed = true;
            return true;
        }
        case State::Content: {
            size_t pos = findDelimiter();
            if (pos == std::string::npos) {
                if (buffer_.size() >= delimiter_.size()) {
                    size_t emit = buffer_.size() - (delimiter_.size() - 1);
                    if (callbacks_.partData && !callbacks_.partData(buffer_.data(), emit)) {
                        return fail("part content rejected");
                    }
                    buffer_.erase(0, emit);
                }
                return true;
            }
            if (pos > 0 && callbacks_.partData && !callbacks_.partData(buffer_.data(), pos)) {
                return fail("part content rejected");
            }
            buffer_.erase(0, pos + delimiter_.size());
            if (callbacks_.partEnd && !callbacks_.partEnd()) return fail("part rejected");
            state_ = State::AfterDelimiter;
            progressed = true;
            return true;
        }
        case State::Epilogue:
            buffer_.clear();
            return true;
        case State::Failed:
            return false;
    }
    return false;
}

bool MultipartParser::feedContent(const char*& data, size_t& size) {
    const size_t m = delimiter_.size();
    if (!buffer_.empty()) {
        // The buffered bytes (fewer than a delimiter) go on unless a
        // delimiter begins among them, which the first m - 1 new bytes tell.
        if (size < m - 1) return true;
        window_.assign(buffer_).append(data, m - 1);
        if (findDelimiter(window_.data(), window_.size()) != std::string::npos) return true;
        if (callbacks_.partData && !callbacks_.partData(buffer_.data(), buffer_.size())) {
            return fail("part content rejected");
        }
        buffer_.clear();
    }
    if (size < m) return true;
    const size_t pos = findDelimiter(data, size);
    const size_t emit = pos == std::string::npos ? size - (m - 1) : pos;
    if (emit > 0 && callbacks_.partData && !callbacks_.partData(data, emit)) {
        return fail("part content rejected");
    }
    data += emit;
    size -= emit;
    if (pos == std::string::npos) return true;
    data += m;
    size -= m;
    if (callbacks_.partEnd && !callbacks_.partEnd()) return fail("part rejected");
    state_ = State::AfterDelimiter;
    return true;
}

bool MultipartParser::feed(const char* data, size_t size) {
    if (state_ == State::Failed) return false;
    if (state_ == State::Epilogue) return true;
    // Chunk bodies are megabytes of content: they are not copied into the
    // buffer on their way through.
    if (state_ == State::Content && buffer_.size() < delimiter_.size() &&
        !feedContent(data, size)) {
        return false;
    }
    buffer_.append(data, size);
    bool progressed = true;
    while (progressed) {
        if (!step(progressed)) return false;
    }
    return true;
}

bool MultipartParser::finish() {
    if (state_ == State::Failed) return false;
    if (state_ != State::Epilogue) {
        return fail(state_ == State::Preamble ? "no boundary delimiter found in the body"
                                              : "body ends before the closing boundary delimiter");
    }
    return true;
}

}  // namespace znv::emulator
