// android/: the build file builds what CMake builds, and the init service and
// its SELinux policy agree with the daemon and with each other.
#include <gtest/gtest.h>
#include <regex.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/control_socket.h"
#include "tests/support/temp_root.h"
#include "tests/support/text.h"

namespace {

const std::string kAndroid = std::string(VORN_SOURCE_DIR) + "/android/";

std::string trim(const std::string &s) {
    size_t b = s.find_first_not_of(" \t\r");
    size_t e = s.find_last_not_of(" \t\r");
    return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

std::vector<std::string> split(const std::string &s, char sep) {
    std::vector<std::string> out;
    std::stringstream ss(s);
    for (std::string item; std::getline(ss, item, sep);)
        if (!item.empty())
            out.push_back(item);
    return out;
}

// A reader for the subset of Blueprint (Android.bp) the project writes:
// modules `type { name: value, ... }` whose values are strings, words (true,
// false, numbers), lists and nested maps; top-level `var = value` lines; //
// and /* */ comments.
struct bp_value {
    std::string text;  // a string or a word
    std::vector<bp_value> list;
    std::map<std::string, bp_value> map;
};

struct bp_module {
    std::string type;
    int line = 0;
    std::map<std::string, bp_value> props;

    std::string name() const { return props.count("name") ? props.at("name").text : ""; }
    // The strings of a list property (empty when absent); nested under
    // target.android etc. when path has dots ("target.android.init_rc").
    std::vector<std::string> strings(const std::string &path) const {
        const std::map<std::string, bp_value> *level = &props;
        std::vector<std::string> out;
        for (const std::string &key : split(path, '.')) {
            auto it = level->find(key);
            if (it == level->end())
                return {};
            out.clear();
            for (const bp_value &item : it->second.list)
                out.push_back(item.text);
            level = &it->second.map;
        }
        return out;
    }
};

class bp_reader {
  public:
    // Splits s into tokens: 's' strings (unquoted), 'w' words, punctuation as itself.
    explicit bp_reader(const std::string &s) {
        int line = 1;
        for (size_t i = 0, counted = 0; i < s.size() && err_.empty();) {
            line += static_cast<int>(std::count(s.begin() + counted, s.begin() + i, '\n'));
            counted = i;
            if (isspace(static_cast<unsigned char>(s[i]))) {
                i++;
            } else if (s.compare(i, 2, "//") == 0) {
                i = std::min(s.find('\n', i), s.size());
            } else if (s.compare(i, 2, "/*") == 0) {
                i = std::min(s.find("*/", i + 2), s.size() - 2) + 2;
            } else if (s[i] == '"') {
                std::string text;
                for (i++; i < s.size() && s[i] != '"' && s[i] != '\n'; i++)
                    text += s[i] == '\\' && i + 1 < s.size() ? s[++i] : s[i];
                if (i++ >= s.size() || s[i - 1] != '"')
                    err_ = "line " + std::to_string(line) + ": unterminated string";
                toks_.push_back({'s', text, line});
            } else if (isalnum(static_cast<unsigned char>(s[i])) || s[i] == '_' || s[i] == '-') {
                size_t b = i++;
                while (i < s.size() && (isalnum(static_cast<unsigned char>(s[i])) || s[i] == '_'))
                    i++;
                toks_.push_back({'w', s.substr(b, i - b), line});
            } else if (std::string_view("{}[]:,=").find(s[i]) != std::string_view::npos) {
                toks_.push_back({s[i], std::string(1, s[i]), line});
                i++;
            } else {
                err_ = "line " + std::to_string(line) + ": unexpected " + s[i];
            }
        }
    }

    // The modules; false on a syntax error, with "line N: what" in err.
    bool modules(std::vector<bp_module> *out, std::string *err) {
        while (err_.empty() && at_ < toks_.size()) {
            bp_module m{toks_[at_].text, toks_[at_].line, {}};
            bp_value unused;
            if (!eat('w'))
                fail("expected a module type or a variable");
            else if (eat('='))
                value(&unused);
            else if (eat('{') && map_body(&m.props))
                out->push_back(m);
            else
                fail("expected '{' after " + m.type);
        }
        *err = err_;
        return err_.empty();
    }

  private:
    struct token {
        char kind;
        std::string text;
        int line;
    };

    bool is(char kind) const { return at_ < toks_.size() && toks_[at_].kind == kind; }
    bool eat(char kind) { return is(kind) && (++at_, true); }
    bool fail(const std::string &what) {
        int line = toks_.empty() ? 1 : toks_[std::min(at_, toks_.size() - 1)].line;
        if (err_.empty())
            err_ = "line " + std::to_string(line) + ": " + what;
        return false;
    }
    // `name: value` pairs up to the closing brace, commas between them.
    bool map_body(std::map<std::string, bp_value> *props) {
        while (!eat('}')) {
            std::string key = is('w') ? toks_[at_].text : "";
            if (!eat('w'))
                return fail("expected a property name");
            if (!eat(':'))
                return fail("expected ':' after " + key);
            if (props->count(key))
                return fail("property " + key + " given twice");
            if (!value(&(*props)[key]))
                return false;
            if (!eat(',') && !is('}'))
                return fail("expected ',' or '}' after " + key);
        }
        return true;
    }
    bool value(bp_value *v) {
        if (eat('{'))
            return map_body(&v->map);
        if (is('s') || is('w')) {
            v->text = toks_[at_++].text;
            return true;
        }
        if (!eat('['))
            return fail("expected a value");
        while (!eat(']')) {
            if (!value(&v->list.emplace_back()))
                return false;
            if (!eat(',') && !is(']'))
                return fail("expected ',' or ']' in a list");
        }
        return true;
    }

    std::vector<token> toks_;
    size_t at_ = 0;
    std::string err_;
};

std::string join(const std::set<std::string> &items) {
    std::string out;
    for (const std::string &i : items)
        out += (out.empty() ? "" : " ") + i;
    return out;
}

// "" when equal, else which entries only one side has.
std::string difference(const std::set<std::string> &cmake, const std::set<std::string> &bp) {
    std::set<std::string> only_cmake, only_bp;
    std::set_difference(cmake.begin(), cmake.end(), bp.begin(), bp.end(),
                        std::inserter(only_cmake, only_cmake.end()));
    std::set_difference(bp.begin(), bp.end(), cmake.begin(), cmake.end(),
                        std::inserter(only_bp, only_bp.end()));
    std::string out;
    if (!only_cmake.empty())
        out += " only in CMake: " + join(only_cmake) + ";";
    if (!only_bp.empty())
        out += " only in android/Android.bp: " + join(only_bp) + ";";
    return out;
}

struct cmake_target {
    std::vector<std::string> srcs;  // relative to the repository
    std::vector<std::string> deps;  // as given to target_link_libraries
};

// The project's targets as this build configured them.
std::map<std::string, cmake_target> cmake_targets() {
    std::map<std::string, cmake_target> out;
    for (const std::string &line : lines_of(read_file(VORN_CMAKE_TARGETS))) {
        std::vector<std::string> f;
        std::stringstream ss(line);
        for (std::string item; std::getline(ss, item, '\t');)
            f.push_back(item);
        f.resize(3);
        out[f[0]] = {split(f[1], ';'), split(f[2], ';')};
    }
    return out;
}

// The platform's module for each library CMake takes from the host;
// empty when bionic provides it.
const std::map<std::string, std::string> kSharedLibs = {
    {"android::log", "liblog"},
    {"android::cutils", "libcutils"},
    {"LibXml2::LibXml2", "libxml2"},
    {"ZLIB::ZLIB", "libz"},
    {"PkgConfig::MINIZIP", "libminizip"},
    {"qrtr::qrtr", "libqrtr"},
    {"Threads::Threads", ""},
};

std::string module_name(const std::string &target) {
    return target.compare(0, 5, "vorn_") == 0 ? "lib" + target : target;
}

// The project libraries a target links, directly or through other libraries.
std::set<std::string> library_closure(const std::map<std::string, cmake_target> &targets,
                                      const std::string &root) {
    std::set<std::string> seen;
    std::vector<std::string> todo = {root};
    while (!todo.empty()) {
        std::string t = todo.back();
        todo.pop_back();
        for (const std::string &d : targets.at(t).deps)
            if (targets.count(d) && seen.insert(d).second)
                todo.push_back(d);
    }
    return seen;
}

class AndroidBp : public testing::Test {
  protected:
    void SetUp() override {
        targets_ = cmake_targets();
        ASSERT_TRUE(targets_.count("vornd") && targets_.count("vornctl"))
            << "no target list at " << VORN_CMAKE_TARGETS;
        std::string err;
        ASSERT_TRUE(bp_reader(read_file(kAndroid + "Android.bp")).modules(&modules_, &err))
            << "android/Android.bp " << err;
        for (const char *bin : {"vornd", "vornctl"}) {
            shipped_.insert(bin);
            for (const std::string &lib : library_closure(targets_, bin))
                shipped_.insert(lib);
        }
    }

    const bp_module *module(const std::string &name) const {
        for (const bp_module &m : modules_)
            if (m.name() == name)
                return &m;
        return nullptr;
    }

    // Platform modules for the host libraries target links; a failure for
    // one this test does not know yet.
    std::set<std::string> shared_libs(const std::string &target) const {
        std::set<std::string> out;
        for (const std::string &d : targets_.at(target).deps) {
            if (targets_.count(d))
                continue;
            auto it = kSharedLibs.find(d);
            if (it == kSharedLibs.end())
                ADD_FAILURE() << target << " links " << d
                              << ": name its Android module in kSharedLibs and android/Android.bp";
            else if (!it->second.empty())
                out.insert(it->second);
        }
        return out;
    }

    std::map<std::string, cmake_target> targets_;
    std::vector<bp_module> modules_;
    std::set<std::string> shipped_;  // vornd, vornctl and every library they link
};

TEST_F(AndroidBp, EveryModuleBuildsTheSourcesCMakeBuilds) {
    for (const std::string &t : shipped_) {
        std::string name = module_name(t);
        const bp_module *m = module(name);
        std::set<std::string> cmake(targets_[t].srcs.begin(), targets_[t].srcs.end());
        if (m == nullptr) {
            ADD_FAILURE() << "android/Android.bp has no module " << name << " for CMake's " << t
                          << " (" << join(cmake) << ")";
            continue;
        }
        EXPECT_EQ(m->type, name == t ? "cc_binary" : "cc_library_static") << name;
        std::vector<std::string> srcs = m->strings("srcs");
        std::set<std::string> bp(srcs.begin(), srcs.end());
        EXPECT_EQ(bp.size(), srcs.size()) << name << " lists a source twice";
        std::string diff = difference(cmake, bp);
        EXPECT_TRUE(diff.empty()) << "srcs of " << name << " and of CMake's " << t
                                  << " differ:" << diff;
        std::vector<std::string> libs = m->strings("shared_libs");
        std::set<std::string> have(libs.begin(), libs.end());
        for (const std::string &lib : shared_libs(t))
            EXPECT_TRUE(have.count(lib)) << name << " needs " << lib << " in shared_libs";
    }
    // A module CMake does not build would be built from a list nothing checks.
    for (const bp_module &m : modules_)
        if (m.type.compare(0, 3, "cc_") == 0 && m.type != "cc_defaults") {
            std::string target = m.name().compare(0, 3, "lib") == 0 ? m.name().substr(3) : m.name();
            EXPECT_TRUE(shipped_.count(target))
                << "android/Android.bp line " << m.line << ": " << m.name()
                << " is not built into vornd or vornctl by CMake";
        }
}

TEST_F(AndroidBp, BinariesLinkTheLibrariesCMakeLinks) {
    for (const char *bin : {"vornd", "vornctl"}) {
        const bp_module *m = module(bin);
        ASSERT_NE(m, nullptr) << bin;
        std::set<std::string> closure = library_closure(targets_, bin);
        std::set<std::string> cmake;
        for (const std::string &lib : closure)
            cmake.insert(module_name(lib));
        std::vector<std::string> libs = m->strings("static_libs");
        std::string diff = difference(cmake, std::set<std::string>(libs.begin(), libs.end()));
        EXPECT_TRUE(diff.empty()) << "the libraries " << bin << " links differ:" << diff;
        // Each library before the ones it uses, so a one-pass linker resolves all.
        for (size_t i = 0; i < libs.size(); i++) {
            std::string target = libs[i].substr(3);
            if (!targets_.count(target))
                continue;
            for (size_t j = 0; j < i; j++)
                EXPECT_FALSE(library_closure(targets_, target).count(libs[j].substr(3)))
                    << bin << ": " << libs[i] << " uses " << libs[j] << ", listed before it";
        }
        std::vector<std::string> shared = m->strings("shared_libs");
        std::set<std::string> have(shared.begin(), shared.end());
        closure.insert(bin);
        for (const std::string &t : closure)
            for (const std::string &lib : shared_libs(t))
                EXPECT_TRUE(have.count(lib)) << bin << " links " << t << ", which needs " << lib;
    }
}

TEST_F(AndroidBp, DaemonShipsItsServiceAndConfiguration) {
    const bp_module *vornd = module("vornd");
    ASSERT_NE(vornd, nullptr);
    std::vector<std::string> rc = vornd->strings("target.android.init_rc");
    EXPECT_EQ(rc, std::vector<std::string>{"android/vornd.rc"});
    const bp_module *conf = module("vorn-conf.xml");
    ASSERT_NE(conf, nullptr);
    EXPECT_EQ(conf->type, "prebuilt_etc");
    EXPECT_EQ(vornd->strings("target.android.required"), std::vector<std::string>{conf->name()});
    // Every file the build file names exists.
    for (const bp_module &m : modules_)
        for (const char *prop : {"srcs", "target.android.init_rc"})
            for (const std::string &f : m.strings(prop))
                EXPECT_TRUE(std::ifstream(std::string(VORN_SOURCE_DIR) + "/" + f).good())
                    << m.name() << " names " << f;
}

// The type of a context "u:object_r:TYPE:s0".
std::string context_type(const std::string &context) {
    std::vector<std::string> parts = split(context, ':');
    return parts.size() == 4 ? parts[2] : "";
}

// file_contexts: each line's path pattern (an extended regular expression
// that must match the whole path) and type.
std::vector<std::pair<std::string, std::string>> file_contexts() {
    std::vector<std::pair<std::string, std::string>> out;
    for (const std::string &l : lines_of(read_file(kAndroid + "sepolicy/file_contexts"))) {
        std::vector<std::string> w = words_of(l);
        if (!w.empty() && w[0][0] != '#')
            out.push_back({w[0], w.size() > 1 ? context_type(w[1]) : ""});
    }
    return out;
}

std::string type_of(const std::vector<std::pair<std::string, std::string>> &labels,
                    const std::string &path) {
    std::string type;
    for (const auto &[pattern, label] : labels) {
        regex_t re;
        if (regcomp(&re, ("^(" + pattern + ")$").c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
            ADD_FAILURE() << "file_contexts: bad pattern " << pattern;
            continue;
        }
        if (regexec(&re, path.c_str(), 0, nullptr, 0) == 0)
            type = label;  // the last match wins, as for the policy's own files
        regfree(&re);
    }
    return type;
}

bool ident_char(char c) {
    return isalnum(static_cast<unsigned char>(c)) || c == '_';
}

// The identifiers of a line, in order.
std::vector<std::string> identifiers(const std::string &line) {
    std::vector<std::string> out(1);
    for (char c : line) {
        if (ident_char(c))
            out.back() += c;
        else if (!out.back().empty())
            out.emplace_back();
    }
    return out;
}

// Types the policy declares (`type NAME, ...;`).
std::set<std::string> declared_types() {
    std::set<std::string> out;
    for (const std::string &l : lines_of(read_file(kAndroid + "sepolicy/vornd.te"))) {
        std::vector<std::string> ids = identifiers(l);
        if (trim(l).compare(0, 5, "type ") == 0 && ids.size() > 1)
            out.insert(ids[1]);
    }
    return out;
}

TEST(InitService, MatchesTheDaemonAndItsPolicy) {
    std::vector<std::string> rc;
    for (const std::string &l : lines_of(read_file(kAndroid + "vornd.rc")))
        if (!trim(l).empty() && trim(l)[0] != '#')
            rc.push_back(trim(l));
    ASSERT_FALSE(rc.empty());
    std::vector<std::string> head = words_of(rc[0]);
    head.resize(3);
    const std::string path = head[2];
    EXPECT_EQ(head[0], "service");
    EXPECT_EQ(head[1], "vornd");
    std::set<std::string> options(rc.begin() + 1, rc.end());
    // The daemon takes the socket init names ANDROID_SOCKET_<name>.
    EXPECT_TRUE(options.count(std::string("socket ") + VORN_SOCKET_NAME + " stream 0666 root root"))
        << "the service must hand over the socket \"" << VORN_SOCKET_NAME << "\"";
    EXPECT_TRUE(options.count("user root"));
    EXPECT_TRUE(options.count("class late_start"));

    auto labels = file_contexts();
    std::set<std::string> types = declared_types();
    EXPECT_EQ(type_of(labels, path), "vornd_exec") << path;
    EXPECT_EQ(type_of(labels, VORN_SOCKET_PATH), "vornd_socket");
    for (const char *file : {"/data/vorn-conf.xml", "/data/vorn-conf.xml.tmp.123"})
        EXPECT_EQ(type_of(labels, file), "vornd_data_file") << file;
    for (const char *dev : {"/dev/ramdump_modem", "/dev/ramdump_smem-modem"})
        EXPECT_EQ(type_of(labels, dev), "vornd_ramdump_device") << dev;
    for (const auto &[pattern, type] : labels)
        EXPECT_TRUE(types.count(type)) << pattern << " has the undeclared type " << type;
}

TEST(Sepolicy, EveryRuleHasItsReasonAndEveryOwnTypeIsDeclared) {
    std::set<std::string> types = declared_types();
    std::vector<std::string> te = lines_of(read_file(kAndroid + "sepolicy/vornd.te"));
    ASSERT_FALSE(te.empty());
    for (size_t i = 0; i < te.size(); i++) {
        std::string t = trim(te[i]);
        if (t.empty() || t[0] == '#')
            continue;
        EXPECT_TRUE(i > 0 && trim(te[i - 1]).compare(0, 1, "#") == 0)
            << "vornd.te line " << i + 1 << " has no reason above it: " << t;
        EXPECT_TRUE(t.back() == ';' || t.back() == ')')
            << "vornd.te line " << i + 1 << ": one rule per line: " << t;
        for (const std::string &id : identifiers(t))  // the daemon's own types
            EXPECT_TRUE(id.rfind("vornd_", 0) != 0 || types.count(id))
                << "vornd.te line " << i + 1 << " uses the undeclared type " << id;
    }
    for (const std::string &l : lines_of(read_file(kAndroid + "sepolicy/genfs_contexts"))) {
        std::vector<std::string> w = words_of(l);
        if (w.empty() || w[0][0] == '#')
            continue;
        ASSERT_EQ(w.size(), 4u) << "genfscon FS PATH CONTEXT: " << l;
        EXPECT_EQ(w[0], "genfscon") << l;
        EXPECT_TRUE(types.count(context_type(w[3]))) << l << ": undeclared type";
    }
}

}  // namespace
