// Logd buffer capture: the buffers named by a node's provider, read through
// the platform's logger list and written as liblog "time" lines.
#pragma once

#include <log/log_read.h>

#include "platform/logd_reader.h"

#define VORN_LOG_DEVICE_NAME_LEN 8  // 7 characters and the terminator

// One buffer of the provider, in the order of the provider string.
struct log_device {
    char name[VORN_LOG_DEVICE_NAME_LEN];
    bool is_events;
    char first_letter;
    vorn_logger_list *list;
    vorn_logger *handle;
    log_device *next;
};

// Builds the device list of a provider: one name without ";", else up to four
// names split at ";" and " ", each reduced to the part after its last "/".
// Returns 0 with *head set (null for an empty provider), or -1.
int init_log_devices(const char *provider, log_device **head);
void free_log_devices(log_device *head);
