#include "core/node_table.h"

#include <strings.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/config.h"
#include "core/gbl_config.h"
#include "core/node_ops.h"
#include "platform/log.h"

vorn_node *vorn_nodes = nullptr;
int vorn_node_count = 0;

namespace {

const vorn_node_ops *register_table = nullptr;
size_t register_rows = 0;

const char *or_null(const char *s) {
    return s ? s : "(null)";
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

int bind_row(vorn_node *node, const vorn_node_ops *row) {
    node->ops = row;
    return row->init ? row->init(node, row) : 0;
}

int bind_default(vorn_node *node, const vorn_node_ops *row) {
    VLOGD("%s doesn't exist in register table, use the default ops\n", node->logname);
    return bind_row(node, row);
}

}  // namespace

int vorn_node_ops_init_with(vorn_node *node, const vorn_node_ops *table, size_t rows) {
    if (node == nullptr) {
        VLOGE("%s, Invalied arguments\n", "vorn_node_ops_init");
        return -1;
    }
    for (size_t i = 0; i < rows; i++) {
        const vorn_node_ops *row = &table[i];
        if (row->logname == nullptr) {
            VLOGE("Please fill logname in register table!\n");
            return -1;
        }
        bool is_default_row = strcasecmp(row->logname, "default") == 0;
        if (strcasecmp(node->logname, row->logname) == 0) {
            // A node literally named "Default" takes the default path too.
            return is_default_row ? bind_default(node, row) : bind_row(node, row);
        }
        if (is_default_row)
            return bind_default(node, row);
    }
    return -1;
}

int vorn_node_ops_init(vorn_node *node) {
    return vorn_node_ops_init_with(node, register_table, register_rows);
}

void vorn_set_register_table(const vorn_node_ops *table, size_t rows) {
    register_table = table;
    register_rows = rows;
}

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

uint8_t find_node_index(const char *logname) {
    if (logname == nullptr || vorn_node_count < 1 || vorn_nodes == nullptr)
        return VORN_NO_NODE;
    // The last probe, slot vorn_node_count, is the extra zeroed record.
    for (int i = 1; i <= vorn_node_count && i < VORN_NO_NODE; i++) {
        if (strcmp(logname, vorn_nodes[i].logname) == 0) {
            VLOGD("find %s at index %d", logname, i);
            return static_cast<uint8_t>(i);
        }
    }
    return VORN_NO_NODE;
}
