#include "core/shell.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/command_line.h"
#include "platform/log.h"

std::string shell_word(std::string_view word) {
    auto literal = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               strchr("_-./:,+=@%", c) != nullptr;
    };
    bool plain = !word.empty();
    for (char c : word)
        plain = plain && c != '\0' && literal(c);
    if (plain)
        return std::string(word);
    std::string out = "'";
    for (char c : word) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    out += '\'';
    return out;
}

std::string shell_dquoted(std::string_view text) {
    std::string out;
    for (char c : text) {
        if (c == '\\' || c == '"' || c == '$' || c == '`')
            out += '\\';
        out += c;
    }
    return out;
}

int run_command(const char *cmd) {
    int status = system(cmd);
    if (status == 1) {
        VLOGD("Empty command \n");
        VLOGE("command(%s) terminated by signal %d\n", cmd, 1);
    } else if (status < 0) {
        VLOGE("Run command (%s) failed(%s)\n", cmd, strerror(errno));
    } else if ((status & 0x7f) != 0 && (status & 0x7f) != 0x7f) {
        VLOGE("command(%s) terminated by signal %d\n", cmd, status & 0x7f);
    } else if ((status & 0xff) == 0x7f) {
        VLOGE("process stopped by signal %d\n", (status >> 8) & 0xff);
    }
    return status;
}

void send_broadcast(const char *action, const char *params) {
    size_t len = strlen(action) + strlen(params) + 2;
    char *text = static_cast<char *>(malloc(len));
    if (text == nullptr) {
        VLOGE("OOM: No memory for broadcast string!\n");
        return;
    }
    snprintf(text, len, "%s %s", action, params);
    VLOGD("broadcast: %s", text);
    for (int run = 0; run < 4; run++) {
        if (run_daemon_line(text) == 0)
            break;
    }
    free(text);
}
