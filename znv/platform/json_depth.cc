#include "znv/platform/json_depth.h"

namespace znv {

size_t ZNVJSONNestingDepth(std::string_view text, size_t limit) {
    size_t depth = 0;
    size_t deepest = 0;
    bool inString = false;
    bool escaped = false;
    for (char c : text) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > deepest) {
                deepest = depth;
                if (deepest > limit) return deepest;
            }
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return deepest;
}

}  // namespace znv
