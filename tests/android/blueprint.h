// A reader for the subset of Blueprint (Android.bp) the project writes:
// modules `type { name: value, ... }` whose values are strings, booleans,
// integers, lists and nested maps, plus top-level `var = value` lines;
// // and /* */ comments.
#pragma once

#include <map>
#include <string>
#include <vector>

struct bp_value {
    enum kind_t { STRING, BOOL, INT, IDENT, LIST, MAP } kind = STRING;
    std::string text;  // STRING, BOOL, INT, IDENT
    std::vector<bp_value> list;
    std::map<std::string, bp_value> map;
};

struct bp_module {
    std::string type;
    int line = 0;
    std::map<std::string, bp_value> props;

    std::string name() const;
    // The strings of a list property (empty when absent); nested under
    // target.android etc. when path has dots ("target.android.init_rc").
    std::vector<std::string> strings(const std::string &path) const;
};

// Parses text; on a syntax error returns false with "line N: what" in err.
bool bp_parse(const std::string &text, std::vector<bp_module> *out, std::string *err);
