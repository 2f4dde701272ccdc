#include "daemon/dispatcher.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/command_line.h"
#include "core/config.h"
#include "core/node_ops.h"
#include "core/node_table.h"
#include "platform/log.h"

namespace {

// Waits, one second at a time, until the list holds a command. Called and
// returns with cmd_list_mutex held.
void wait_for_command_locked() {
    while (cmd_list_head == nullptr) {
        pthread_mutex_unlock(&cmd_list_mutex);
        sleep(1);
        pthread_mutex_lock(&cmd_list_mutex);
    }
}

// Writes the wanted state and the command's mask on the node's element; each
// attribute is saved on its own.
void write_back(const vorn_node *node, int wanted, const vorn_ctrl_msg *msg) {
    xmlNodePtr el = vorn_config_find_element(node->logname);
    if (el == nullptr)
        return;  // a node without an element is changed in memory only
    char value[12];
    snprintf(value, sizeof value, "%d", wanted);
    vorn_config_set_attr(el, "enable", value);
    // The dump parser's mask is fixed by the configuration.
    if (xmlStrcmp(el->name, BAD_CAST "DumpParser") != 0) {
        char mask[VORN_MASK_LEN];
        vorn_msg_put_text(mask, sizeof mask, msg->mask);
        vorn_config_set_attr(el, "mask", mask);
    }
}

}  // namespace

int vornd_dispatch_cmd(vorn_pending_cmd *cmd) {
    const vorn_ctrl_msg *msg = &cmd->msg;
    char name[sizeof msg->logname + 1];
    vorn_msg_get_text(name, msg->logname, sizeof msg->logname);
    uint8_t idx = find_node_index(name);
    if (idx == VORN_NO_NODE) {
        VLOGE("Invalid logname: %s", name);
        free(cmd);
        return -1;
    }

    vorn_node *node = &vorn_nodes[idx];
    char mask[sizeof msg->mask + 1];
    vorn_msg_get_text(mask, msg->mask, sizeof msg->mask);
    if ((node->logtype & VORN_LOGTYPE_KIND_MASK) == VORN_KIND_EXEC &&
        !template_value_allowed(mask)) {
        // The mask goes into a shell command line: refused before anything
        // runs or is saved, and the node stays as it was.
        VLOGE(
            "Refused mask (%s) of %s: only letters, digits, blanks and _-./:,=+@%% may go "
            "into its command\n",
            mask, name);
        free(cmd);
        return 0;
    }
    {
        vorn_node_guard guard(node);
        node->new_file_request = msg->enable >> 1;
        int wanted = msg->enable & VORN_ENABLE_BIT;
        if (node->enable != wanted || strncmp(node->mask, msg->mask, sizeof node->mask) != 0) {
            node->pending_change = 1;
            write_back(node, wanted, msg);
            int rc;
            if (wanted) {
                if (msg->msg_type == VORN_MSG_SET_NODE && node->worker_thread == 0)
                    vorn_node_create_work_thread(node);
                rc = vorn_node_enable(node, msg);
            } else {
                // A running worker notices the disabled state by itself.
                rc = vorn_node_disable(node, msg);
            }
            if (rc != 0) {
                VLOGE("fail to set %s %s\n", node->logname, node->enable ? "enable" : "disable");
                node->pending_change = 0;
                // Back to the state before the op, for an op that had already
                // stored the new one; the file keeps what was written.
                node->enable ^= VORN_ENABLE_BIT;
            }
        }
    }
    free(cmd);
    return 0;
}

void *vornd_dispatch(void *) {
    VLOGD("Dispatch thread starts to run");
    pthread_mutex_lock(&cmd_list_mutex);
    for (;;) {
        wait_for_command_locked();
        vorn_pending_cmd *cmd = cmd_list_take_locked();
        pthread_mutex_unlock(&cmd_list_mutex);
        VLOGD("Got pending cmd");
        if (vornd_dispatch_cmd(cmd) != 0) {
            // An unknown name: nothing was applied, so no pause.
            pthread_mutex_lock(&cmd_list_mutex);
            continue;
        }
        // Consecutive changes are applied at least one second apart.
        sleep(1);
        pthread_mutex_lock(&cmd_list_mutex);
    }
    return nullptr;
}
