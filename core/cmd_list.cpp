#include "core/cmd_list.h"

pthread_mutex_t cmd_list_mutex = PTHREAD_MUTEX_INITIALIZER;
vorn_pending_cmd *cmd_list_head = nullptr;
vorn_pending_cmd **cmd_list_tail = &cmd_list_head;

namespace {
size_t cmd_list_count = 0;  // under cmd_list_mutex
}

void cmd_list_init() {
    pthread_mutex_init(&cmd_list_mutex, nullptr);
    cmd_list_head = nullptr;
    cmd_list_tail = &cmd_list_head;
    cmd_list_count = 0;
}

bool cmd_list_append(vorn_pending_cmd *cmd) {
    cmd->next = nullptr;
    pthread_mutex_lock(&cmd_list_mutex);
    bool room = cmd_list_count < VORN_CMD_LIST_MAX;
    if (room) {
        *cmd_list_tail = cmd;
        cmd_list_tail = &cmd->next;
        cmd_list_count++;
    }
    pthread_mutex_unlock(&cmd_list_mutex);
    return room;
}

vorn_pending_cmd *cmd_list_take_locked() {
    vorn_pending_cmd *cmd = cmd_list_head;
    if (cmd == nullptr)
        return nullptr;
    cmd_list_head = cmd->next;
    cmd_list_count--;
    if (cmd_list_head == nullptr)
        cmd_list_tail = &cmd_list_head;
    cmd->next = nullptr;
    return cmd;
}
