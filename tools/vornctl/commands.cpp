// Node and global-settings commands of vornctl.
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "tools/vornctl/change_wait.h"
#include "tools/vornctl/vornctl.h"

namespace {

void print_node(const ctl_options &o, const ctl_node_view &n) {
    if (o.json) {
        printf(
            "{\"slot\":%d,\"name\":%s,\"enabled\":%d,\"level\":%d,\"time\":%d,\"size\":%d,"
            "\"mask\":%s}\n",
            n.slot, ctl_json_string(n.name).c_str(), n.enable, n.loglevel, n.time, n.size,
            ctl_json_string(n.mask).c_str());
    } else {
        printf("slot=%d name=%s enabled=%d level=%d time=%d size=%d mask=%s\n", n.slot,
               n.name.c_str(), n.enable, n.loglevel, n.time, n.size, n.mask.c_str());
    }
}

int need_operands(const ctl_options &o, size_t n, const char *shape) {
    if (o.args.size() != n + 1)
        return ctl_fail(CTL_USAGE, "usage: vornctl %s (see --help)", shape);
    return CTL_OK;
}

}  // namespace

int cmd_query(const ctl_options &o) {
    if (int rc = need_operands(o, 1, "query NAME"))
        return rc;
    vorn_ctrl_msg node;
    std::string why;
    int rc = ctl_query_node(o, o.args[1], &node, &why);
    if (rc != CTL_OK)
        return ctl_fail(rc, "%s", why.c_str());
    print_node(o, ctl_view_of(node));
    return CTL_OK;
}

int cmd_set_state(const ctl_options &o) {
    const std::string &cmd = o.args[0];
    if (int rc = need_operands(o, 1, (cmd + " NAME").c_str()))
        return rc;
    if (o.has_mask && cmd != "enable")
        return ctl_fail(CTL_USAGE, "--mask goes with enable only");
    if (o.mask.size() > kCtlMaskMax)
        return ctl_fail(CTL_USAGE, "mask longer than %d characters", kCtlMaskMax);
    // The change carries state and mask together: keep what is not changed.
    vorn_ctrl_msg node;
    std::string why;
    int rc = ctl_query_node(o, o.args[1], &node, &why);
    if (rc != CTL_OK)
        return ctl_fail(rc, "%s", why.c_str());
    ctl_node_view cur = ctl_view_of(node);

    vorn_ctrl_msg change;
    vorn_msg_init(&change, VORN_MSG_SET_NODE);
    vorn_msg_put_text(change.logname, sizeof change.logname, cur.name.c_str());
    std::string mask = o.has_mask ? o.mask : cur.mask;
    vorn_msg_put_text(change.mask, sizeof change.mask, mask.c_str());
    if (cmd == "enable")
        change.enable = 1;
    else if (cmd == "disable")
        change.enable = 0;
    else  // new-file: the same state, and a new-file request in bits 1-7
        change.enable = static_cast<uint8_t>((cur.enable & VORN_ENABLE_BIT) | 0x02);
    change_watch watch(o, cur, mask);
    if (o.wait) {
        if (int prc = watch.prepare())
            return prc;
    }
    vorn_ctrl_msg ack;
    rc = ctl_request(o, change, &ack, VORN_MSG_REPLY, &why);
    if (rc != CTL_OK)
        return ctl_fail(rc, "%s", why.c_str());
    if (o.wait)
        return watch.wait();
    if (o.json) {
        printf("{\"name\":%s,\"queued\":%s,\"enable\":%d,\"mask\":%s}\n",
               ctl_json_string(cur.name).c_str(), ctl_json_string(cmd).c_str(), change.enable,
               ctl_json_string(mask).c_str());
    } else {
        printf(
            "%s: %s queued (enable byte %d, mask \"%s\"); the daemon applies one change a "
            "second\n",
            cur.name.c_str(), cmd.c_str(), change.enable, mask.c_str());
    }
    return CTL_OK;
}

int cmd_global(const ctl_options &o) {
    if (int rc = need_operands(o, 0, "global"))
        return rc;
    ctl_global g;
    std::string why;
    int rc = ctl_query_global(o, &g, &why);
    if (rc != CTL_OK)
        return ctl_fail(rc, "%s", why.c_str());
    if (o.json) {
        printf("{\"enabled\":%d,\"level\":%d,\"time\":%d,\"size\":%d,\"log_path\":%s}\n", g.enable,
               g.loglevel, g.time, g.size, ctl_json_string(g.log_path).c_str());
    } else {
        printf("enabled=%d level=%d time=%d size=%d log_path=%s\n", g.enable, g.loglevel, g.time,
               g.size, g.log_path.c_str());
    }
    return CTL_OK;
}

int cmd_set_log_path(const ctl_options &o) {
    if (int rc = need_operands(o, 1, "set-log-path PATH"))
        return rc;
    const std::string &path = o.args[1];
    if (path.empty() || path.size() > VORN_MSG_GBL_LOG_PATH_LEN - 1)
        return ctl_fail(CTL_USAGE, "the log path must have 1 to %d characters",
                        VORN_MSG_GBL_LOG_PATH_LEN - 1);
    vorn_ctrl_msg m;
    vorn_msg_init(&m, VORN_MSG_SET_LOG_PATH);
    vorn_msg_put_text(reinterpret_cast<char *>(&m) + VORN_MSG_GBL_LOG_PATH_OFF,
                      VORN_MSG_GBL_LOG_PATH_LEN, path.c_str());
    std::string why;
    int rc = ctl_request(o, m, nullptr, 0, &why);
    if (rc != CTL_OK)
        return ctl_fail(rc, "%s", why.c_str());
    // No reply to this request; the daemon finished it before serving the
    // next connection, so read the settings back to confirm.
    ctl_global g;
    rc = ctl_query_global(o, &g, &why);
    if (rc != CTL_OK)
        return ctl_fail(rc, "%s", why.c_str());
    if (g.log_path != path)
        return ctl_fail(CTL_NO_REPLY, "the daemon kept the log path %s", g.log_path.c_str());
    if (o.json)
        printf("{\"log_path\":%s}\n", ctl_json_string(g.log_path).c_str());
    else
        printf("log path is now %s\n", g.log_path.c_str());
    return CTL_OK;
}
