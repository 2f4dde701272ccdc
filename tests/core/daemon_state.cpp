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

std::string make_conf(const char *version, const std::string &global_attrs,
                      const std::string &nodes) {
    std::string s = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<vornconf";
    if (version)
        s += std::string(" version=\"") + version + "\"";
    s += ">\n  <global " + global_attrs + "/>\n" + nodes + "</vornconf>\n";
    return s;
}

std::string pipe_node(const std::string &name, const std::string &extra) {
    return "  <" + name + " logname=\"" + name +
           "\" enable=\"0\" logtype=\"128\" log_provider=\"echo hi\" log_filepath=\"" + name + "/" +
           name + "\" " + extra + "/>\n";
}
