#include "core/daemon/startup.h"

#include <grp.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/dagt.h"
#include "core/cmd_list.h"
#include "core/config.h"
#include "core/daemon/control_socket.h"
#include "core/daemon/dispatcher.h"
#include "core/daemon/register_table.h"
#include "core/gbl_config.h"
#include "core/node_ops.h"
#include "platform/log.h"
#include "platform/root.h"
#include "qdss/qdss.h"

namespace {

constexpr gid_t kDiagGroup = 3009;  // Android's diagnostic group

const char *or_null(const char *s) {
    return s ? s : "(null)";
}

void usage(FILE *out) {
    fprintf(out,
            "Usage: vornd [--root DIR]\n"
            "\n"
            "Collects debug logs: reads its log nodes from /data/vorn-conf.xml (or the\n"
            "system copy /etc/vorn-conf.xml), starts a worker for every enabled node and\n"
            "serves requests on the control socket /dev/socket/vornd (see vornctl).\n"
            "\n"
            "Options:\n"
            "  --root DIR   resolve every absolute device path under DIR (a simulated\n"
            "               device root on a Linux host); logs go to stderr\n"
            "  --help       print this help and exit\n"
            "  --version    print the version and exit\n");
}

// Returns -1 to go on, or the exit status.
int parse_args(int argc, char **argv, const char **root) {
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
        fprintf(stderr, "vornd: %s: %s\n",
                strcmp(a, "--root") == 0 || strcmp(a, "--root=") == 0 ? "missing directory after"
                                                                      : "unknown argument",
                a);
        usage(stderr);
        return 2;
    }
    return -1;
}

xmlNodePtr next_element(xmlNodePtr n) {
    while (n != nullptr && n->type != XML_ELEMENT_NODE)
        n = n->next;
    return n;
}

void release_node_texts(vorn_node *node) {
    free(node->log_provider);
    free(node->log_filepath);
    free(node->mask_link);
}

}  // namespace

int vornd_load_nodes(int elements, bool start_workers) {
    // One record per element, and one more zeroed record for the last probe
    // of find_node_index.
    vorn_nodes =
        static_cast<vorn_node *>(calloc(static_cast<size_t>(elements) + 1, sizeof(vorn_node)));
    if (vorn_nodes == nullptr) {
        VLOGE("Can't allocate memory for vorn_nodes. err:%s", strerror(errno));
        return -1;
    }
    vorn_node_count = elements;

    pthread_mutex_init(&gbl_config_mutex, nullptr);
    xmlNodePtr global = next_element(vorn_conf_root->children);
    vorn_config_fill_global(global);

    int slot = 1;
    bool slot_dirty = false;
    for (xmlNodePtr el = next_element(global ? global->next : nullptr); el != nullptr;
         el = next_element(el->next)) {
        vorn_node *node = &vorn_nodes[slot];
        // A dropped node's slot is reused as it is: texts the next element
        // lacks keep the dropped node's values.
        vorn_config_fill_node(node, slot, el, global);
        if (vorn_node_ops_init(node) != 0) {
            vorn_node_count--;
            pthread_mutex_destroy(&node->lock);
            slot_dirty = true;
            continue;
        }
        slot_dirty = false;
        VLOGD(
            "logid %d, enable %d , loglevel %d ,logtype %d , log_provider %s , log_filepath %s "
            ",logname "
            "%s ,mask %s",
            node->logid, node->enable, node->loglevel, node->logtype, or_null(node->log_provider),
            or_null(node->log_filepath), node->logname, node->mask);
        if (node->enable && start_workers)
            vorn_node_create_work_thread(node);
        slot++;
    }
    // If the last element was dropped its values sit in the slot that
    // find_node_index probes last; that probe must read an empty record.
    if (slot_dirty) {
        release_node_texts(&vorn_nodes[slot]);
        memset(&vorn_nodes[slot], 0, sizeof(vorn_node));
    }
    return 0;
}

void vornd_free_nodes() {
    if (vorn_nodes != nullptr) {
        // Slots past the count are zeroed (see vornd_load_nodes).
        for (int i = 0; i <= vorn_node_count; i++)
            release_node_texts(&vorn_nodes[i]);
        free(vorn_nodes);
    }
    vorn_nodes = nullptr;
    vorn_node_count = 0;
}

int vornd_main(int argc, char **argv) {
    const char *root = nullptr;
    int rc = parse_args(argc, argv, &root);
    if (rc >= 0)
        return rc;
    vorn_set_root(root);
    vorn_log_init();

    if (geteuid() == 0) {
        gid_t groups[] = {kDiagGroup};
        if (setgroups(1, groups) == -1) {
            VLOGE("vornd: setgroups error, errno: %d, Exiting ...\n", errno);
            exit(-1);
        }
    }

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

        for (;;)
            vornd_serve_connection(listen_fd);
    }

startup_failed:
    VLOGE("return: %d, error:%s", rc, strerror(errno));
    return -1;
}
