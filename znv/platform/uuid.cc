#include "znv/platform/uuid.h"

#include <uuid/uuid.h>

namespace znv {

std::string ZNVUUIDString() {
    uuid_t uuid;
    uuid_generate_random(uuid);
    char text[37];
    uuid_unparse_upper(uuid, text);
    return std::string(text, 36);
}

}  // namespace znv
