#include "daemon/control_request.h"

#include <cstdlib>
#include <cstring>

#include "agent/dagt.h"
#include "archive/mini_zip.h"
#include "core/cmd_list.h"
#include "core/config.h"
#include "core/gbl_config.h"
#include "core/node_ops.h"
#include "core/node_table.h"
#include "core/path_check.h"
#include "platform/log.h"

namespace {

void dump_fields(const vorn_ctrl_msg *msg) {
    char name[sizeof msg->logname + 1];
    char mask[sizeof msg->mask + 1];
    vorn_msg_get_text(name, msg->logname, sizeof msg->logname);
    vorn_msg_get_text(mask, msg->mask, sizeof msg->mask);
    VLOGD("msg_type is %d\n", msg->msg_type);
    VLOGD("logid is %d\n", msg->logid);
    VLOGD("enable is %d\n", msg->enable);
    VLOGD("loglevel is %d\n", msg->loglevel);
    VLOGD("time is %d\n", msg->time);
    VLOGD("size is %d\n", msg->size);
    VLOGD("logname is %s\n", name);
    VLOGD("mask is %s\n", mask);
}

vorn_reply_kind query_node(vorn_ctrl_msg *msg) {
    char name[sizeof msg->logname + 1];
    vorn_msg_get_text(name, msg->logname, sizeof msg->logname);
    uint8_t idx = find_node_index(name);
    if (idx == VORN_NO_NODE) {
        VLOGE("Can't find valid index for logname (%s)", name);
        return VORN_REPLY_NONE;
    }
    // Under the node's lock, so that a reply never mixes two changes (a mask
    // half old, half new); a change holds it only while it is applied.
    vorn_node *node = &vorn_nodes[idx];
    {
        vorn_node_guard guard(node);
        msg->logid = node->logid;
        msg->enable = node->enable;
        msg->loglevel = node->loglevel;
        msg->time = node->time;
        msg->size = node->size;
        vorn_msg_put_text(msg->logname, sizeof msg->logname, node->logname);
        vorn_msg_put_text(msg->mask, sizeof msg->mask, node->mask);
    }
    msg->msg_type |= VORN_MSG_REPLY;
    dump_fields(msg);
    return VORN_REPLY_MSG;
}

vorn_reply_kind queue_change(vorn_ctrl_msg *msg) {
    dump_fields(msg);
    auto *cmd = static_cast<vorn_pending_cmd *>(malloc(sizeof(vorn_pending_cmd)));
    bool full = false;
    if (cmd == nullptr) {
        VLOGE("pcmd_entry malloc: out of memory");
    } else {
        memcpy(&cmd->msg, msg, sizeof cmd->msg);
        full = !cmd_list_append(cmd);
        if (full) {
            VLOGE("Pending command list full (%d), change for %.*s dropped", VORN_CMD_LIST_MAX,
                  static_cast<int>(sizeof msg->logname), msg->logname);
            free(cmd);
        }
    }
    // A client flooding the socket learns that its change was dropped.
    vorn_msg_init(msg, full ? VORN_MSG_NOT_QUEUED : VORN_MSG_REPLY);
    return VORN_REPLY_ACK;
}

vorn_reply_kind read_global(vorn_ctrl_msg *msg) {
    {
        gbl_config_guard g;
        memcpy(msg, &gbl_config, sizeof gbl_config);
    }
    msg->msg_type |= VORN_MSG_REPLY;
    return VORN_REPLY_MSG;
}

void change_log_path(const vorn_ctrl_msg *msg) {
    // The path runs from its offset to its terminator, or to the end of the
    // message when the client left none.
    char path[VORN_MSG_SIZE - VORN_MSG_GBL_LOG_PATH_OFF + 1];
    vorn_msg_get_text(path, reinterpret_cast<const char *>(msg) + VORN_MSG_GBL_LOG_PATH_OFF,
                      VORN_MSG_SIZE - VORN_MSG_GBL_LOG_PATH_OFF);
    if (strcmp(gbl_config.log_path, path) == 0)
        return;
    // Every log file, archive and removal happens under this path.
    if (!vorn_log_path_acceptable(path)) {
        VLOGE("Refused log path %s: not absolute, or holds \"..\"\n", path);
        return;
    }
    vorn_config_set_attr(vorn_conf_root ? xmlFirstElementChild(vorn_conf_root) : nullptr,
                         "log_path", path);
    {
        gbl_config_guard g;
        vorn_msg_put_text(gbl_config.log_path, sizeof gbl_config.log_path, path);
    }
    VLOGD("GLOBAL logpath change to %s\n", path);
}

void run_agent_line(const vorn_ctrl_msg *msg) {
    // Bytes 1-255 and a terminator of our own: a client may fill them all.
    char line[VORN_MSG_SIZE];
    memcpy(line, reinterpret_cast<const char *>(msg) + VORN_MSG_AGENT_TEXT_OFF,
           VORN_MSG_SIZE - VORN_MSG_AGENT_TEXT_OFF);
    line[VORN_MSG_SIZE - 1] = '\0';
    dagt_result result;
    memset(&result, 0, sizeof result);
    dagt_execute(line, &result);  // no reply: the agent logs its own summary
}

void start_archive(const vorn_ctrl_msg *msg) {
    // mini_zip reads the message on its own thread and frees it.
    void *copy = malloc(sizeof *msg);
    if (copy == nullptr)
        return;
    memcpy(copy, msg, sizeof *msg);
    start_detached_thread(mini_zip, copy, "vorn_zip");
}

}  // namespace

vorn_reply_kind vornd_handle_request(vorn_ctrl_msg *msg, int len) {
    VLOGD("Message recieved size:%d type:%d\n", len, msg->msg_type);
    switch (msg->msg_type) {
        case VORN_MSG_QUERY_NODE:
            return query_node(msg);
        case VORN_MSG_SET_NODE:
            return queue_change(msg);
        case VORN_MSG_GET_GLOBAL:
            return read_global(msg);
        case VORN_MSG_SET_LOG_PATH:
            change_log_path(msg);
            return VORN_REPLY_NONE;
        case VORN_MSG_AGENT:
            run_agent_line(msg);
            return VORN_REPLY_NONE;
        case VORN_MSG_ARCHIVE:
            start_archive(msg);
            return VORN_REPLY_NONE;
        default:  // 5 and 6 do nothing; 0 and above 8 are ignored
            return VORN_REPLY_NONE;
    }
}
