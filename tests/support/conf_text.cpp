#include "tests/support/conf_text.h"

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
