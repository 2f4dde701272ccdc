// Compares a text with a shape in which '9' stands for any digit and every
// other character for itself: time stamps in names without <regex>, whose
// headers trip GCC 12's uninitialised-use warnings in optimised builds.
#pragma once

#include <cctype>
#include <string_view>

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
