// enable, disable and new-file --wait: the node's reply and files before the
// change, then a poll until the change shows in both.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/vornctl/node_files.h"
#include "tools/vornctl/vornctl.h"

// A change is applied within a second, and a capture worker notices it at
// its next poll (3 s) or, while its provider is running and silent, within 5 s.
constexpr int kChangeWaitSec = 15;

class change_watch {
  public:
    change_watch(const ctl_options &o, const ctl_node_view &before, std::string mask)
        : o_(o), before_(before), cmd_(o.args[0]), mask_(std::move(mask)) {}

    // Notes the node's files and which of them the daemon holds open; call
    // before the change is sent. CTL_OK or the exit status.
    int prepare();
    // Polls until the change is visible; prints what happened and returns
    // CTL_OK, or says what was seen and returns CTL_NO_REPLY at the timeout.
    int wait();

  private:
    struct seen {
        bool replied = false;
        ctl_node_view node{};
        std::string why;                     // why the query failed
        std::vector<node_file> files;        // the node's files now
        const node_file *created = nullptr;  // a current file that is new
        std::vector<std::string> open;       // node files the daemon holds open
        bool open_known = false;
    };
    void look(seen *s) const;
    bool done(const seen &s) const;
    int report(const seen &s, double seconds) const;
    int fail(const seen &s, int waited) const;
    // The files of the node that the daemon holds open, relative to the log root.
    std::vector<std::string> open_names(const std::vector<node_file> &files,
                                        const std::optional<open_set> &open) const;

    const ctl_options &o_;
    ctl_node_view before_;
    std::string cmd_, mask_;
    int want_enable_ = 0;
    bool no_change_ = false;  // the node is already as asked
    ctl_global global_{};
    bool captures_ = false;
    node_place place_;
    std::set<std::string> before_names_;
    std::vector<std::string> before_open_;
};
