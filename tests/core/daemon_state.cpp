#include "tests/core/daemon_state.h"

#include <libxml/tree.h>

#include <cstdlib>
#include <cstring>

#include "core/config.h"
#include "core/daemon/startup.h"
#include "core/gbl_config.h"
#include "core/node.h"

void reset_daemon_state() {
    vornd_free_nodes();
    if (vorn_conf_doc != nullptr)
        xmlFreeDoc(vorn_conf_doc);
    vorn_conf_doc = nullptr;
    vorn_conf_root = nullptr;
    memset(&gbl_config, 0, sizeof gbl_config);
}
