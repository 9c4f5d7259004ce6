#include "znv/platform/url.h"

#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <memory>

namespace znv {
namespace {

struct UrlHandleDeleter {
    void operator()(CURLU* h) const { curl_url_cleanup(h); }
};
using UrlHandle = std::unique_ptr<CURLU, UrlHandleDeleter>;

std::string getPart(CURLU* h, CURLUPart part, unsigned flags = 0) {
    char* out = nullptr;
    if (curl_url_get(h, part, &out, flags) != CURLUE_OK || out == nullptr) return {};
    std::string value(out);
    curl_free(out);
    return value;
}

bool isUnreserved(unsigned char c) {
    return std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::string ZNVURL::percentEncodePathSegment(std::string_view segment) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    out.reserve(segment.size());
    for (unsigned char c : segment) {
        if (isUnreserved(c) || c == '!' || c == '$' || c == '&' || c == '\'' || c == '(' ||
            c == ')' || c == '*' || c == '+' || c == ',' || c == ';' || c == '=' || c == ':' ||
            c == '@') {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(hex[c >> 4]);
            out.push_back(hex[c & 0xF]);
        }
    }
    return out;
}

std::string ZNVURL::percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            int hi = hexValue(text[i + 1]);
            int lo = hexValue(text[i + 2]);
            if (hi >= 0 && lo >= 0) {
                out.push_back(static_cast<char>(hi * 16 + lo));
                i += 2;
                continue;
            }
        }
        out.push_back(text[i]);
    }
    return out;
}

std::optional<ZNVURL> ZNVURL::fromString(std::string_view text) {
    if (text.empty()) return std::nullopt;
    std::string owned(text);
    UrlHandle h(curl_url());
    if (!h) return std::nullopt;
    if (curl_url_set(h.get(), CURLUPART_URL, owned.c_str(), CURLU_NON_SUPPORT_SCHEME) !=
        CURLUE_OK) {
        return std::nullopt;
    }
    return fromNormalisedHandle(h.get(), std::move(owned));
}

std::optional<ZNVURL> ZNVURL::fromNormalisedHandle(void* handle, std::string absolute) {
    auto* h = static_cast<CURLU*>(handle);
    std::string scheme = getPart(h, CURLUPART_SCHEME);
    std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (scheme.empty()) return std::nullopt;
    // Offsets are 32 bits wide.
    if (absolute.size() > UINT32_MAX / 2) return std::nullopt;

    // Split the text as written: scheme ":" ["//" authority] path ["?" query] ["#" fragment].
    size_t colon = absolute.find(':');
    if (colon == std::string::npos) return std::nullopt;
    size_t pos = colon + 1;
    if (absolute.compare(pos, 2, "//") == 0) {
        pos += 2;
        size_t end = absolute.find_first_of("/?#", pos);
        pos = end == std::string::npos ? absolute.size() : end;
    }
    size_t pathEnd = absolute.find_first_of("?#", pos);
    if (pathEnd == std::string::npos) pathEnd = absolute.size();

    ZNVURL url;
    url.parts_ = std::move(scheme);
    url.schemeEnd_ = static_cast<uint32_t>(url.parts_.size());
    url.parts_ += getPart(h, CURLUPART_HOST);
    url.hostEnd_ = static_cast<uint32_t>(url.parts_.size());
    url.parts_ += getPart(h, CURLUPART_PORT);
    url.portEnd_ = static_cast<uint32_t>(url.parts_.size());
    url.parts_ += getPart(h, CURLUPART_QUERY);
    if (url.parts_.size() > UINT32_MAX / 2) return std::nullopt;
    url.parts_.shrink_to_fit();
    url.authorityEnd_ = static_cast<uint32_t>(pos);
    url.pathEnd_ = static_cast<uint32_t>(pathEnd);
    url.absolute_ = std::move(absolute);
    url.absolute_.shrink_to_fit();
    return url;
}

ZNVURL ZNVURL::fileURL(const std::string& path, bool isDirectory) {
    std::string absolutePath = path;
    if (absolutePath.empty() || absolutePath[0] != '/') {
        char buf[4096];
        std::string cwd = getcwd(buf, sizeof buf) ? buf : "/";
        absolutePath = cwd + (cwd.back() == '/' ? "" : "/") + absolutePath;
    }
    std::string encoded;
    size_t start = 0;
    while (start <= absolutePath.size()) {
        size_t slash = absolutePath.find('/', start);
        if (slash == std::string::npos) slash = absolutePath.size();
        encoded +=
            percentEncodePathSegment(std::string_view(absolutePath).substr(start, slash - start));
        if (slash < absolutePath.size()) encoded.push_back('/');
        start = slash + 1;
    }
    if (isDirectory && (encoded.empty() || encoded.back() != '/')) encoded.push_back('/');
    // The text is "file://" and an absolute path made only of unreserved
    // characters, sub-delimiters, ":", "@", "/" and escapes: no host, port,
    // query or fragment. Its parts are known without handing it to the parser,
    // which costs more than the rest of this (sources are looked up at every
    // step of an upload).
    static constexpr std::string_view kPrefix = "file://";
    ZNVURL url;
    url.absolute_ = std::string(kPrefix) + encoded;
    if (url.absolute_.size() > UINT32_MAX / 2) return ZNVURL();
    url.parts_ = "file";
    url.schemeEnd_ = url.hostEnd_ = url.portEnd_ = static_cast<uint32_t>(url.parts_.size());
    url.authorityEnd_ = static_cast<uint32_t>(kPrefix.size());
    url.pathEnd_ = static_cast<uint32_t>(url.absolute_.size());
    return url;
}

std::optional<ZNVURL> ZNVURL::resolve(std::string_view reference, const ZNVURL& base) {
    std::string ref(reference);
    if (auto absolute = fromString(ref); absolute && ref.find("://") != std::string::npos) {
        return absolute;
    }
    if (base.isEmpty()) return std::nullopt;
    UrlHandle h(curl_url());
    if (!h) return std::nullopt;
    if (curl_url_set(h.get(), CURLUPART_URL, base.absolute_.c_str(), CURLU_NON_SUPPORT_SCHEME) !=
        CURLUE_OK) {
        return std::nullopt;
    }
    if (curl_url_set(h.get(), CURLUPART_URL, ref.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
        return std::nullopt;
    }
    std::string resolved = getPart(h.get(), CURLUPART_URL);
    if (resolved.empty()) return std::nullopt;
    return fromString(resolved);
}

std::string ZNVURL::path() const {
    std::string decoded = percentDecode(encodedPath());
    while (decoded.size() > 1 && decoded.back() == '/')
        decoded.pop_back();
    return decoded;
}

bool ZNVURL::hasDirectoryPath() const {
    const std::string_view rawPath = encodedPath();
    return !rawPath.empty() && rawPath.back() == '/';
}

std::vector<std::string> ZNVURL::pathComponents() const {
    std::vector<std::string> components;
    const std::string_view rawPath = encodedPath();
    if (rawPath.empty()) return components;
    if (rawPath[0] == '/') components.emplace_back("/");
    size_t start = 0;
    while (start < rawPath.size()) {
        size_t slash = rawPath.find('/', start);
        if (slash == std::string_view::npos) slash = rawPath.size();
        if (slash > start) {
            components.push_back(percentDecode(rawPath.substr(start, slash - start)));
        }
        start = slash + 1;
    }
    return components;
}

std::string ZNVURL::lastPathComponent() const {
    auto components = pathComponents();
    return components.empty() ? std::string() : components.back();
}

std::string ZNVURL::pathExtension() const {
    std::string last = lastPathComponent();
    size_t dot = last.rfind('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == last.size()) return {};
    return last.substr(dot + 1);
}

ZNVURL ZNVURL::withEncodedPath(const std::string& encodedPath) const {
    std::string text = absolute_.substr(0, authorityEnd_) + encodedPath;
    if (pathEnd_ < absolute_.size()) text += absolute_.substr(pathEnd_);
    auto url = fromString(text);
    return url ? *url : ZNVURL();
}

ZNVURL ZNVURL::appendingPathComponent(const std::string& component, bool isDirectory) const {
    if (isEmpty()) return {};
    std::string base(encodedPath());
    if (base.empty() || base.back() != '/') base.push_back('/');
    // A "/" inside the component separates segments, as in a file-system path;
    // only the text between the slashes is percent-encoded.
    std::string encoded = base;
    size_t start = 0;
    for (;;) {
        size_t slash = component.find('/', start);
        encoded += percentEncodePathSegment(std::string_view(component).substr(
            start, slash == std::string::npos ? slash : slash - start));
        if (slash == std::string::npos) break;
        encoded.push_back('/');
        start = slash + 1;
    }
    if (isDirectory && !encoded.empty() && encoded.back() != '/') encoded.push_back('/');
    return withEncodedPath(encoded);
}

ZNVURL ZNVURL::deletingLastPathComponent() const {
    if (isEmpty()) return {};
    std::string p(encodedPath());
    while (p.size() > 1 && p.back() == '/')
        p.pop_back();
    size_t slash = p.rfind('/');
    if (slash == std::string::npos) return withEncodedPath("");
    return withEncodedPath(p.substr(0, slash + 1));
}

ZNVURL ZNVURL::deletingPathExtension() const {
    std::string extension = pathExtension();
    if (extension.empty()) return *this;
    std::string p(encodedPath());
    bool directory = !p.empty() && p.back() == '/';
    while (p.size() > 1 && p.back() == '/')
        p.pop_back();
    std::string encodedExtension = percentEncodePathSegment(extension);
    p.resize(p.size() - encodedExtension.size() - 1);
    if (directory) p.push_back('/');
    return withEncodedPath(p);
}

}  // namespace znv
