// Placeholder until the archive is built: frees the message and logs.
#include <cstdlib>

#include "archive/mini_zip.h"
#include "platform/log.h"

void *mini_zip(void *message) {
    VLOGE("%s: archive is not built yet\n", "mini_zip");
    free(message);
    return nullptr;
}
