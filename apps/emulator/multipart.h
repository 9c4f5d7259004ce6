// Streaming multipart/form-data parser.
//
// Bytes are fed in pieces of any size (`feed`); the parser reports each part's
// headers, its content in pieces and its end through the callbacks, holding at
// most one header block and a delimiter's length of content in memory. A part's
// content never includes the CRLF that precedes the next delimiter. The first
// delimiter may or may not be preceded by CRLF (or by any preamble); anything
// after the closing delimiter is ignored.
//
// One parser reads one body on one thread. After a callback returns false, or
// after malformed input, every later `feed` returns false and `error()` says
// why; `finish` returns false unless the closing delimiter was seen.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace znv::emulator {

struct MultipartPartHeaders {
    std::string name;         // Content-Disposition "name"
    std::string filename;     // Content-Disposition "filename" (may be empty)
    std::string contentType;  // the part's Content-Type (may be empty)
};

class MultipartParser {
  public:
    struct Callbacks {
        std::function<bool(const MultipartPartHeaders&)> partBegin;
        std::function<bool(const char* data, size_t size)> partData;
        std::function<bool()> partEnd;
    };

    MultipartParser(std::string boundary, Callbacks callbacks);
    // The search points into the parser's own delimiter: no copies.
    MultipartParser(const MultipartParser&) = delete;
    MultipartParser& operator=(const MultipartParser&) = delete;

    bool feed(const char* data, size_t size);
    bool finish();

    const std::string& error() const { return error_; }

    // The boundary parameter of a multipart/form-data content type, or none when
    // the type is another one or has no usable boundary.
    static std::optional<std::string> boundaryFromContentType(std::string_view contentType);

  private:
    enum class State { Preamble, AfterDelimiter, Headers, Content, Epilogue, Failed };

    bool fail(std::string message);
    bool parseHeaders(std::string_view block, MultipartPartHeaders& headers);
    bool step(bool& progressed);
    size_t findDelimiter() const;  // first delimiter in buffer_, or npos
    size_t findDelimiter(const char* text, size_t size) const;
    // Inside a part's content: hands on the fed bytes where they lie, past
    // the buffered ones, up to the next delimiter or to the few bytes that
    // could begin one; `data` and `size` are left at what remains.
    bool feedContent(const char*& data, size_t& size);

    const std::string delimiter_;  // CRLF "--" boundary
    // Skip table of the delimiter, made once: a body is searched in pieces of
    // a few KiB, and a search that sets itself up on every piece costs more
    // than the scan.
    const std::boyer_moore_horspool_searcher<const char*> searcher_;
    Callbacks callbacks_;
    State state_ = State::Preamble;
    std::string buffer_;
    // The buffered bytes and the first new ones, searched together; kept to
    // reuse its memory from one piece to the next.
    std::string window_;
    std::string error_;
};

}  // namespace znv::emulator
