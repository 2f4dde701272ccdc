#include "core/gbl_config.h"

#include <cstring>

gbl_config_t gbl_config;
pthread_mutex_t gbl_config_mutex = PTHREAD_MUTEX_INITIALIZER;

int32_t gbl_config_time() {
    int32_t v;
    memcpy(&v, reinterpret_cast<const char *>(&gbl_config) + offsetof(gbl_config_t, time),
           sizeof v);
    return v;
}

int32_t gbl_config_size() {
    int32_t v;
    memcpy(&v, reinterpret_cast<const char *>(&gbl_config) + offsetof(gbl_config_t, size),
           sizeof v);
    return v;
}
