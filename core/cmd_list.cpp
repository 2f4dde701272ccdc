#include "core/cmd_list.h"

pthread_mutex_t cmd_list_mutex = PTHREAD_MUTEX_INITIALIZER;
vorn_pending_cmd *cmd_list_head = nullptr;
vorn_pending_cmd **cmd_list_tail = &cmd_list_head;

void cmd_list_init() {
    pthread_mutex_init(&cmd_list_mutex, nullptr);
    cmd_list_head = nullptr;
    cmd_list_tail = &cmd_list_head;
}

void cmd_list_append(vorn_pending_cmd *cmd) {
    cmd->next = nullptr;
    pthread_mutex_lock(&cmd_list_mutex);
    *cmd_list_tail = cmd;
    cmd_list_tail = &cmd->next;
    pthread_mutex_unlock(&cmd_list_mutex);
}

vorn_pending_cmd *cmd_list_take_locked() {
    vorn_pending_cmd *cmd = cmd_list_head;
    if (cmd == nullptr)
        return nullptr;
    cmd_list_head = cmd->next;
    if (cmd_list_head == nullptr)
        cmd_list_tail = &cmd_list_head;
    cmd->next = nullptr;
    return cmd;
}
