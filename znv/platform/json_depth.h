// How deep a JSON text nests, measured without parsing it.
//
// Contract: a pure function, callable from any thread. Readers of untrusted
// JSON call it before parsing, so that a hostile document can drive neither the
// parser nor any later recursion deep.
#pragma once

#include <cstddef>
#include <string_view>

namespace znv {

// The deepest nesting of arrays and objects in `text`, counted outside
// strings; stops counting once `limit` is exceeded (the result is then
// limit + 1). Malformed text is left to the parser.
size_t ZNVJSONNestingDepth(std::string_view text, size_t limit);

}  // namespace znv
