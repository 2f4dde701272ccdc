// System properties. On Android these are libcutils' property_get/set; on a
// host they live in the key=value file <root>/system/build.prop, which is read
// again on every get and rewritten atomically on every set.
#pragma once

#define VORN_PROP_VALUE_MAX 92

// Copies the value of key (or default_value when unset, or "" when that is
// null) into value, which holds VORN_PROP_VALUE_MAX bytes; returns the length.
int vorn_property_get(const char *key, char *value, const char *default_value);

// Returns 0 on success, -1 on failure.
int vorn_property_set(const char *key, const char *value);
