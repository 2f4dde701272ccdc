// Text helpers shared by the tests: lines and words of a text, and a shape
// match for time stamps.
#pragma once

#include <cctype>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

// The lines of text, without their newlines.
inline std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

// The blank-separated words of text.
inline std::vector<std::string> words_of(const std::string &text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string w; in >> w;)
        out.push_back(w);
    return out;
}

// Compares a text with a shape in which '9' stands for any digit and every
// other character for itself: time stamps in names without <regex>, whose
// headers trip GCC 12's uninitialised-use warnings in optimised builds.
inline bool has_shape(std::string_view text, std::string_view shape) {
    if (text.size() != shape.size())
        return false;
    for (size_t i = 0; i < text.size(); i++) {
        bool digit = isdigit(static_cast<unsigned char>(text[i])) != 0;
        if (shape[i] == '9' ? !digit : text[i] != shape[i])
            return false;
    }
    return true;
}
