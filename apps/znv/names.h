// Text from outside (file names, URLs, server answers) on its way to the
// user's terminal or file system.
//
// - `escapeControls` makes text safe to print: control characters (C0, DEL,
//   C1), line and paragraph separators, bidirectional overrides and bytes that
//   are not UTF-8 are written as escapes ("\n", "\x1b", "\u202e"); everything
//   else is kept. JSON output does not use it: JSON carries the text as it is.
// - `safeFileName` turns a name a server or a URL suggests into one path
//   component, or "" when nothing safe remains (the caller falls back).
// - Widths count terminal columns: most code points take one, East Asian wide
//   and emoji ranges take two.
// Pure functions; any thread.
#pragma once

#include <string>
#include <string_view>

namespace znv::cli {

std::string escapeControls(std::string_view text);

// Whether every byte belongs to a well-formed UTF-8 sequence.
bool isUTF8(std::string_view text);

// Decodes %XX escapes; malformed escapes stay as they are.
std::string percentDecode(std::string_view text);

// One path component: "/" and NUL become "_", control characters and bytes
// that are not UTF-8 are dropped, names that are empty, "." or ".." or start
// with "." give "", and the result is cut to at most 255 bytes (on a
// character boundary, keeping a short extension).
std::string safeFileName(std::string_view name);

// "name (n).ext" (or "name (n)"), still at most 255 bytes.
std::string numberedFileName(const std::string& name, int n);

// The file name a Content-Disposition header suggests ("filename*" before
// "filename"), decoded but not yet made safe; "" when there is none.
std::string contentDispositionFilename(std::string_view header);

size_t displayWidth(std::string_view text);
// `text` shortened to at most `width` columns with "..." at the start (so
// that the end of a path or name stays visible) or at the end.
std::string fitWidth(std::string_view text, size_t width, bool keepEnd);

}  // namespace znv::cli
