#include "daemon/startup.h"

#include <grp.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/dagt.h"
#include "core/cmd_list.h"
#include "core/config.h"
#include "core/gbl_config.h"
#include "core/node_ops.h"
#include "core/node_table.h"
#include "daemon/control_socket.h"
#include "daemon/dispatcher.h"
#include "daemon/register_table.h"
#include "platform/log.h"
#include "platform/root.h"
#include "qdss/qdss.h"

namespace {

constexpr gid_t kDiagGroup = 3009;  // Android's diagnostic group

void usage(FILE *out) {
    fprintf(out,
            "Usage: vornd [--root DIR] [--log-level V|D|I|W|E]\n"
            "\n"
            "Collects debug logs: reads its log nodes from /data/vorn-conf.xml (or the\n"
            "system copy /etc/vorn-conf.xml), starts a worker for every enabled node and\n"
            "serves requests on the control socket /dev/socket/vornd (see vornctl).\n"
            "\n"
            "Options:\n"
            "  --root DIR       resolve every absolute device path under DIR (a simulated\n"
            "                   device root on a Linux host); logs go to stderr\n"
            "  --log-level P    on a host, the lowest priority printed on stderr: V\n"
            "                   (verbose), D (debug), I (info), W (warning) or E (error);\n"
            "                   default V, every message\n"
            "  --help           print this help and exit\n"
            "  --version        print the version and exit\n");
}

// Returns -1 to go on, or the exit status.
int parse_args(int argc, char **argv, const char **root, int *log_level) {
    for (int i = 1; i < argc; i++) {
        const char *a = argv[i];
        if (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0) {
            usage(stdout);
            return 0;
        }
        if (strcmp(a, "--version") == 0) {
            printf("vornd %s\n", VORND_VERSION);
            return 0;
        }
        if (strcmp(a, "--root") == 0 && i + 1 < argc && argv[i + 1][0] != '\0') {
            *root = argv[++i];
            continue;
        }
        if (strncmp(a, "--root=", 7) == 0 && a[7] != '\0') {
            *root = a + 7;
            continue;
        }
        bool level_next = strcmp(a, "--log-level") == 0;
        if (level_next || strncmp(a, "--log-level=", 12) == 0) {
            const char *v = level_next ? (i + 1 < argc ? argv[++i] : nullptr) : a + 12;
            *log_level = vorn_log_priority_of(v);
            if (*log_level >= 0)
                continue;
            fprintf(stderr, "vornd: --log-level takes V, D, I, W or E, not \"%s\"\n", v ? v : "");
            usage(stderr);
            return 2;
        }
        fprintf(stderr, "vornd: %s: %s\n",
                strcmp(a, "--root") == 0 || strcmp(a, "--root=") == 0 ? "missing directory after"
                                                                      : "unknown argument",
                a);
        usage(stderr);
        return 2;
    }
    return -1;
}

}  // namespace

int vornd_main(int argc, char **argv) {
    const char *root = nullptr;
    int log_level = ANDROID_LOG_VERBOSE;
    int rc = parse_args(argc, argv, &root, &log_level);
    if (rc >= 0)
        return rc;
    vorn_set_root(root);
    vorn_log_init(log_level);

    if (geteuid() == 0) {
        gid_t groups[] = {kDiagGroup};
        if (setgroups(1, groups) == -1) {
            VLOGE("vornd: setgroups error, errno: %d, Exiting ...\n", errno);
            exit(-1);
        }
    }

    vorn_use_register_table();
    vorn_config_remove_stale_temps();
    int elements = vorn_config_choose();
    if (elements < 0) {
        rc = -1;
        goto startup_failed;
    }
    if (vornd_load_nodes(elements) != 0)
        exit(-1);

    cmd_list_init();

    {
        int listen_fd = vornd_create_socket();
        if (listen_fd < 0) {
            VLOGE("Can't creat socket");
            vornd_free_nodes();
            return -1;
        }

        start_detached_thread(vornd_dispatch, nullptr, "vornd_dispatch");
        rc = qdss_buffers_init();
        if (rc != 0)
            goto startup_failed;
        rc = dagt_cmd_init();
        if (rc != 0)
            goto startup_failed;

        vornd_serve(listen_fd);
    }

startup_failed:
    VLOGE("return: %d, error:%s", rc, strerror(errno));
    return -1;
}
