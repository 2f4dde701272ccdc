#include "core/config.h"

#include <dirent.h>
#include <fcntl.h>
#include <libgen.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "core/file_util.h"
#include "core/gbl_config.h"
#include "platform/io.h"
#include "platform/log.h"
#include "platform/root.h"

xmlDocPtr vorn_conf_doc = nullptr;
xmlNodePtr vorn_conf_root = nullptr;

namespace {

struct xml_free_deleter {
    void operator()(xmlChar *p) const { xmlFree(p); }
};
using xml_text = std::unique_ptr<xmlChar, xml_free_deleter>;

// libxml2 reports parse problems through its own error channel, which would
// otherwise print raw text on stderr; keep them in the daemon's log instead.
void xml_error_to_log(void *, xmlErrorPtr err) {
    if (err == nullptr || err->message == nullptr)
        return;
    VLOGD("libxml2: %s:%d: %s", err->file ? err->file : "", err->line, err->message);
}

xml_text get_attr(xmlNodePtr el, xmlNodePtr fallback, const char *name) {
    xmlChar *v = nullptr;
    if (el != nullptr)
        v = xmlGetProp(el, BAD_CAST name);
    if (v == nullptr && fallback != nullptr)
        v = xmlGetProp(fallback, BAD_CAST name);
    return xml_text(v);
}

// The socket thread and the dispatch thread both write back; a save must not
// walk the document while the other thread replaces an attribute in it.
std::mutex g_write_back_mutex;

bool is_xml_char(uint32_t c) {
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
           (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

// Values arrive from the control socket as raw bytes. Control characters and
// broken UTF-8 would be saved as they are and make the working file
// unreadable at the next start, so each such byte is written as '?'.
std::string xml_safe_text(const char *value) {
    static const uint32_t kMinCodePoint[] = {0, 0, 0x80, 0x800, 0x10000};
    const auto *s = reinterpret_cast<const unsigned char *>(value);
    size_t n = strlen(value);
    std::string out;
    out.reserve(n);
    for (size_t i = 0; i < n;) {
        unsigned c = s[i];
        size_t len = c < 0x80             ? 1
                     : (c & 0xE0) == 0xC0 ? 2
                     : (c & 0xF0) == 0xE0 ? 3
                     : (c & 0xF8) == 0xF0 ? 4
                                          : 0;
        uint32_t cp = len == 1 ? c : len == 2 ? c & 0x1F : len == 3 ? c & 0x0F : c & 0x07;
        bool ok = len != 0 && i + len <= n;
        for (size_t k = 1; ok && k < len; k++) {
            ok = (s[i + k] & 0xC0) == 0x80;
            cp = (cp << 6) | (s[i + k] & 0x3F);
        }
        if (ok && cp >= kMinCodePoint[len] && is_xml_char(cp)) {
            out.append(value + i, len);
            i += len;
        } else {
            out += '?';
            i++;
        }
    }
    return out;
}

unsigned long count_children(xmlNodePtr root) {
    return root ? xmlChildElementCount(root) : 0;
}

}  // namespace

int read_xml_file(const char *path, unique_xml_doc *doc, xmlNodePtr *root) {
    xmlSetStructuredErrorFunc(nullptr, xml_error_to_log);
    xmlKeepBlanksDefault(0);
    std::string real = vorn_path(path);
    unique_xml_doc d(xmlReadFile(real.c_str(), "UTF-8", XML_PARSE_RECOVER));
    if (!d) {
        VLOGE("Can't open xml file (%s). err is %s", path, strerror(errno));
        return -1;
    }
    xmlNodePtr r = xmlDocGetRootElement(d.get());
    if (r == nullptr) {
        d.reset();
        xmlCleanupParser();
        VLOGE("Can't read root node. err is %s", strerror(errno));
        return -1;
    }
    *doc = std::move(d);
    *root = r;
    return 0;
}

int get_int_attr(xmlNodePtr el, xmlNodePtr fallback, const char *name, void *dest) {
    xml_text v = get_attr(el, fallback, name);
    if (v == nullptr)
        return -1;
    int32_t n = atoi(reinterpret_cast<const char *>(v.get()));
    memcpy(dest, &n, sizeof n);
    return 0;
}

int get_text_attr(xmlNodePtr el, xmlNodePtr fallback, const char *name, void *dest, size_t n) {
    xml_text v = get_attr(el, fallback, name);
    if (v == nullptr)
        return -1;
    const char *text = reinterpret_cast<const char *>(v.get());
    if (n > 0) {
        snprintf(static_cast<char *>(dest), n, "%s", text);
    } else {
        char **owned = static_cast<char **>(dest);
        free(*owned);
        *owned = strdup(text);
    }
    return 0;
}

void vorn_config_fill_global(xmlNodePtr global) {
    char *base = reinterpret_cast<char *>(&gbl_config);
    gbl_config.type = 0;
    if (get_int_attr(global, nullptr, "enable", base + offsetof(gbl_config_t, enable)) < 0) {
        gbl_config.enable = 1;
    }
    if (get_int_attr(global, nullptr, "loglevel", base + offsetof(gbl_config_t, loglevel)) < 0) {
        gbl_config.loglevel = 0;
    }
    if (get_int_attr(global, nullptr, "time", base + offsetof(gbl_config_t, time)) < 0) {
        int32_t v = -1;
        memcpy(base + offsetof(gbl_config_t, time), &v, sizeof v);
    }
    if (get_int_attr(global, nullptr, "size", base + offsetof(gbl_config_t, size)) < 0) {
        int32_t v = -1;
        memcpy(base + offsetof(gbl_config_t, size), &v, sizeof v);
    }
    if (get_text_attr(global, nullptr, "log_path", gbl_config.log_path,
                      sizeof(gbl_config.log_path)) < 0) {
        snprintf(gbl_config.log_path, sizeof(gbl_config.log_path), "%s", VORN_DEFAULT_LOG_PATH);
    }
}

void vorn_config_fill_node(vorn_node *node, int slot, xmlNodePtr el, xmlNodePtr global) {
    // The integers are stored as whole 32-bit values at the field's place, in
    // this order: enable, loglevel and logtype keep their low 8 bits, and a
    // logtype value overlays the low 24 bits of time with its bits 8-31.
    char *base = reinterpret_cast<char *>(node);
    pthread_mutex_init(&node->lock, nullptr);
    node->worker_thread = 0;
    node->logid = static_cast<uint8_t>(slot);
    get_int_attr(el, global, "enable", base + offsetof(vorn_node, enable));
    get_int_attr(el, global, "loglevel", base + offsetof(vorn_node, loglevel));
    get_int_attr(el, global, "time", base + offsetof(vorn_node, time));
    get_int_attr(el, global, "size", base + offsetof(vorn_node, size));
    get_int_attr(el, global, "logtype", base + offsetof(vorn_node, logtype));
    get_text_attr(el, global, "logname", node->logname, sizeof(node->logname));
    get_text_attr(el, global, "mask", node->mask, sizeof(node->mask));
    get_text_attr(el, global, "mask_link", &node->mask_link, 0);
    get_text_attr(el, global, "log_provider", &node->log_provider, 0);
    get_text_attr(el, global, "log_filepath", &node->log_filepath, 0);
    node->pending_change = 1;
}

int vorn_config_choose() {
    unique_malloc<char> required;
    {
        std::string sys = vorn_path(VORN_SYSTEM_CONF);
        if (access(sys.c_str(), F_OK) != 0) {
            VLOGE("Can't find %s", VORN_SYSTEM_CONF);
            return -1;
        }
        unique_xml_doc sdoc;
        xmlNodePtr sroot;
        if (read_xml_file(VORN_SYSTEM_CONF, &sdoc, &sroot) < 0)
            return -1;
        xml_text v(xmlGetProp(sroot, BAD_CAST "version"));
        if (v) {
            VLOGD("Current system configuration file version %s",
                  reinterpret_cast<char *>(v.get()));
            required.reset(strdup(reinterpret_cast<char *>(v.get())));
        }
        v.reset();
        sdoc.reset();
        xmlCleanupParser();
    }

    bool revert = true;
    unique_xml_doc doc;
    xmlNodePtr root = nullptr;
    std::string work = vorn_path(VORN_WORK_CONF);
    if (access(work.c_str(), F_OK) == 0 && read_xml_file(VORN_WORK_CONF, &doc, &root) == 0) {
        revert = false;
        if (required) {
            xml_text current(xmlGetProp(root, BAD_CAST "version"));
            if (!current) {
                revert = true;  // silently: a working copy without version is stale
            } else if (strcmp(required.get(), reinterpret_cast<char *>(current.get())) != 0) {
                VLOGE("Configuration file version desn't match.  System requirement %s, current %s",
                      required.get(), reinterpret_cast<char *>(current.get()));
                revert = true;
            }
        }
        if (revert)
            doc.reset();
    }

    unsigned long count = 0;
    if (!revert) {
        count = count_children(root);
        if (count != 0) {
            VLOGI("Total %d vornd nodes", static_cast<int>(count));
        } else {
            VLOGE("No log entry in log configuration file. Revert to default configuration file.");
            doc.reset();
            revert = true;
        }
    }
    if (revert) {
        copy_file(VORN_WORK_CONF, VORN_SYSTEM_CONF);
        if (read_xml_file(VORN_WORK_CONF, &doc, &root) < 0)
            return -1;
        count = count_children(root);
        if (count == 0) {
            VLOGE("No log entry in log configuration file.");
            return -1;
        }
    }
    vorn_conf_doc = doc.release();
    vorn_conf_root = root;
    return count > 0x7fffffff ? 0x7fffffff : static_cast<int>(count);
}

xmlNodePtr vorn_config_find_element(const char *name) {
    if (vorn_conf_root == nullptr || name == nullptr)
        return nullptr;
    for (xmlNodePtr c = vorn_conf_root->children; c != nullptr; c = c->next) {
        if (c->type == XML_ELEMENT_NODE && xmlStrcmp(c->name, BAD_CAST name) == 0)
            return c;
    }
    return nullptr;
}

int vorn_config_save() {
    if (vorn_conf_doc == nullptr)
        return -1;
    // Save into a temporary file beside the working copy and rename it over,
    // so that the working copy is always either the old or the new document.
    std::string work = vorn_path(VORN_WORK_CONF);
    // One temporary name per thread: the socket thread and the dispatcher may save at once.
    std::string tmp = work + ".tmp." + std::to_string(static_cast<long>(syscall(SYS_gettid)));
    if (xmlSaveFormatFileEnc(tmp.c_str(), vorn_conf_doc, "UTF-8", 1) < 0) {
        unlink(tmp.c_str());
        return -1;
    }
    int fd = open(tmp.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
    if (rename(tmp.c_str(), work.c_str()) != 0) {
        unlink(tmp.c_str());
        return -1;
    }
    std::string dir = work;
    fd = open(dirname(dir.data()), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
    return 0;
}

void vorn_config_set_attr(xmlNodePtr el, const char *name, const char *value) {
    if (el == nullptr)
        return;
    std::lock_guard<std::mutex> lock(g_write_back_mutex);
    xmlSetProp(el, BAD_CAST name, BAD_CAST xml_safe_text(value ? value : "").c_str());
    vorn_config_save();
}

std::vector<std::string> vorn_config_node_names(const char *path) {
    std::vector<std::string> names;
    for (vorn_config_row &row : vorn_config_rows(path))
        names.push_back(std::move(row.logname));
    return names;
}

std::vector<vorn_config_row> vorn_config_rows(const char *path) {
    std::vector<vorn_config_row> rows;
    unique_xml_doc d(xmlReadFile(vorn_path(path).c_str(), "UTF-8",
                                 XML_PARSE_RECOVER | XML_PARSE_NOBLANKS | XML_PARSE_NOERROR |
                                     XML_PARSE_NOWARNING | XML_PARSE_NONET));
    if (!d)
        return rows;
    xmlNodePtr root = xmlDocGetRootElement(d.get());
    xmlNodePtr global = root ? xmlFirstElementChild(root) : nullptr;
    int slot = 1;
    for (xmlNodePtr el = global ? xmlNextElementSibling(global) : nullptr; el != nullptr;
         el = xmlNextElementSibling(el), slot++) {
        // The daemon's own reader, so that fallbacks and cuts are the same.
        vorn_node node{};
        vorn_config_fill_node(&node, slot, el, global);
        vorn_config_row row;
        row.logname.assign(node.logname, strnlen(node.logname, sizeof node.logname));
        row.log_filepath = node.log_filepath ? node.log_filepath : "";
        row.log_provider = node.log_provider ? node.log_provider : "";
        row.logtype = node.logtype;
        rows.push_back(std::move(row));
        free(node.log_filepath);
        free(node.log_provider);
        free(node.mask_link);
        pthread_mutex_destroy(&node.lock);
    }
    return rows;
}

void vorn_config_remove_stale_temps() {
    std::string work = vorn_path(VORN_WORK_CONF);
    std::string dir = work.substr(0, work.rfind('/') + 1);
    std::string prefix = work.substr(dir.size()) + ".tmp.";
    unique_dir d(opendir(dir.empty() ? "." : dir.c_str()));
    if (!d)
        return;
    while (struct dirent *ent = readdir(d.get())) {
        if (strncmp(ent->d_name, prefix.c_str(), prefix.size()) == 0 &&
            unlinkat(dirfd(d.get()), ent->d_name, 0) == 0)
            VLOGD("Removed %s, left by an interrupted save", ent->d_name);
    }
}
