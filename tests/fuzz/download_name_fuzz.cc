// The file name a download takes from a server's Content-Disposition header,
// and the escaping of any text for the terminal: a name is one plain path
// component, and escaped text holds no control character.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "apps/znv/names.h"

namespace {

bool hasControlByte(const std::string& text) {
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) return true;
    }
    return false;
}

void checkName(const std::string& name) {
    if (name.empty()) return;
    if (name.size() > 255 || name.front() == '.' || name.find('/') != std::string::npos ||
        hasControlByte(name) || !znv::cli::isUTF8(name) || znv::cli::escapeControls(name) != name) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string name = znv::cli::safeFileName(znv::cli::contentDispositionFilename(text));
    checkName(name);
    if (!name.empty()) checkName(znv::cli::numberedFileName(name, 9999));
    checkName(znv::cli::safeFileName(text));

    const std::string escaped = znv::cli::escapeControls(text);
    if (hasControlByte(escaped) || !znv::cli::isUTF8(escaped) ||
        znv::cli::escapeControls(escaped) != escaped) {
        std::abort();
    }
    return 0;
}
