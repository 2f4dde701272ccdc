// The XML configuration: the working copy "/data/vorn-conf.xml", the system
// copy "/etc/vorn-conf.xml", the attribute readers that fill gbl_config and
// the node records, and the write-back of run-time changes.
#pragma once

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <memory>
#include <string>
#include <vector>

#include "core/node.h"

#define VORN_WORK_CONF "/data/vorn-conf.xml"
#define VORN_SYSTEM_CONF "/etc/vorn-conf.xml"

// Owner of a parsed document.
struct xml_doc_deleter {
    void operator()(xmlDoc *doc) const { xmlFreeDoc(doc); }
};
using unique_xml_doc = std::unique_ptr<xmlDoc, xml_doc_deleter>;

// The working document and its root stay loaded for the process lifetime:
// run-time changes are written back through them. A plain pointer on
// purpose: threads still saving through it when the process exits must not
// find it freed by a destructor.
extern xmlDocPtr vorn_conf_doc;
extern xmlNodePtr vorn_conf_root;

// Parses path (a device path) without blanks and with the recover option.
// Returns 0 with *doc and *root set, or -1 (logged).
int read_xml_file(const char *path, unique_xml_doc *doc, xmlNodePtr *root);

// Reads attribute name from el, else from fallback (may be null). Returns -1
// and leaves dest alone when neither has it. get_int_attr stores the whole
// 32-bit atoi value at dest, which may be the place of an 8-bit field: the
// three bytes after it are overwritten too, on purpose (see vorn_node).
int get_int_attr(xmlNodePtr el, xmlNodePtr fallback, const char *name, void *dest);
// n > 0: truncating copy into the char[n] at dest, always terminated.
// n == 0: dest is a char** that receives an owned copy of the whole text
// (the previous copy, if any, is freed).
int get_text_attr(xmlNodePtr el, xmlNodePtr fallback, const char *name, void *dest, size_t n);

// Fills gbl_config from the global element, with the defaults for missing
// attributes.
void vorn_config_fill_global(xmlNodePtr global);

// Fills the node record of slot k from element el with global as fallback:
// enable, loglevel, time, size and logtype in that order (each is stored as a
// whole 32-bit value at its field, so the order decides which bytes win),
// then the texts; sets pending_change. Does not bind ops.
void vorn_config_fill_node(vorn_node *node, int slot, xmlNodePtr el, xmlNodePtr global);

// Chooses between the working and the system copy (version check, revert by
// copy_file) and leaves the chosen document in vorn_conf_doc / vorn_conf_root.
// Returns the child-element count (> 0), or -1 when start-up must fail.
int vorn_config_choose();

// Write-back: the element of the working document whose tag is name, or null.
xmlNodePtr vorn_config_find_element(const char *name);
// Sets one attribute in memory and saves the whole working document to
// "/data/vorn-conf.xml" (through a temporary file and a rename, so that an
// interrupted save never leaves a truncated file). Bytes that XML cannot hold
// (control characters, broken UTF-8) are written as '?'. Safe to call from the
// socket thread and the dispatch thread at once.
void vorn_config_set_attr(xmlNodePtr el, const char *name, const char *value);
// Saves the working document; 0 or -1.
int vorn_config_save();

// The log names of the nodes a configuration file (device path) declares, in
// order and as the node table keeps them (cut to 15 characters; the first
// element holds the global settings). Empty when the file cannot be read.
// Quiet: for clients that show the daemon's nodes.
std::vector<std::string> vorn_config_node_names(const char *path);

// A declared node as the daemon reads it (the global element filling in what
// the node's element lacks): what a client needs besides the daemon's replies
// to find the node's files.
struct vorn_config_row {
    std::string logname;  // cut to 15 characters
    std::string log_filepath;
    std::string log_provider;
    uint8_t logtype = 0;
};
// The rows of a configuration file, in order, quietly; empty when it cannot be read.
std::vector<vorn_config_row> vorn_config_rows(const char *path);

// Removes temporary files of saves that a killed daemon left beside the
// working copy (start-up, before anything saves).
void vorn_config_remove_stale_temps();
