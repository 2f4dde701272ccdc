#include "tests/android/blueprint.h"

#include <cctype>

namespace {

class parser {
  public:
    explicit parser(const std::string &text) : s_(text) {}

    bool file(std::vector<bp_module> *out) {
        for (skip(); pos_ < s_.size(); skip()) {
            int line = line_;
            std::string id;
            if (!ident(&id))
                return fail("expected a module type or a variable");
            skip();
            if (eat('=')) {
                bp_value unused;
                if (!value(&unused))
                    return false;
                continue;
            }
            bp_module m;
            m.type = id;
            m.line = line;
            if (!eat('{'))
                return fail("expected '{' after " + id);
            if (!map_body(&m.props))
                return false;
            out->push_back(m);
        }
        return true;
    }

    std::string error() const { return "line " + std::to_string(err_line_) + ": " + err_; }

  private:
    bool fail(const std::string &what) {
        if (err_.empty()) {
            err_ = what;
            err_line_ = line_;
        }
        return false;
    }

    void advance() {
        if (s_[pos_] == '\n')
            line_++;
        pos_++;
    }

    // Blanks and comments.
    void skip() {
        while (pos_ < s_.size()) {
            if (isspace(static_cast<unsigned char>(s_[pos_]))) {
                advance();
            } else if (s_.compare(pos_, 2, "//") == 0) {
                while (pos_ < s_.size() && s_[pos_] != '\n')
                    advance();
            } else if (s_.compare(pos_, 2, "/*") == 0) {
                while (pos_ < s_.size() && s_.compare(pos_, 2, "*/") != 0)
                    advance();
                pos_ = pos_ + 2 > s_.size() ? s_.size() : pos_ + 2;
            } else {
                return;
            }
        }
    }

    bool eat(char c) {
        skip();
        if (pos_ < s_.size() && s_[pos_] == c) {
            advance();
            return true;
        }
        return false;
    }

    bool ident(std::string *out) {
        size_t start = pos_;
        while (pos_ < s_.size() &&
               (isalnum(static_cast<unsigned char>(s_[pos_])) || s_[pos_] == '_'))
            advance();
        *out = s_.substr(start, pos_ - start);
        return !out->empty() && !isdigit(static_cast<unsigned char>((*out)[0]));
    }

    bool string(std::string *out) {
        advance();  // the opening quote
        while (pos_ < s_.size() && s_[pos_] != '"') {
            if (s_[pos_] == '\\' && pos_ + 1 < s_.size())
                advance();
            if (s_[pos_] == '\n')
                return fail("newline in a string");
            out->push_back(s_[pos_]);
            advance();
        }
        if (pos_ >= s_.size())
            return fail("unterminated string");
        advance();
        return true;
    }

    // `name: value` pairs up to the closing brace, commas between them.
    bool map_body(std::map<std::string, bp_value> *props) {
        while (!eat('}')) {
            skip();
            std::string key;
            if (!ident(&key))
                return fail("expected a property name");
            if (!eat(':'))
                return fail("expected ':' after " + key);
            bp_value v;
            if (!value(&v))
                return false;
            if (props->count(key))
                return fail("property " + key + " given twice");
            (*props)[key] = v;
            if (!eat(',')) {
                if (!eat('}'))
                    return fail("expected ',' or '}' after " + key);
                return true;
            }
        }
        return true;
    }

    bool value(bp_value *v) {
        skip();
        if (pos_ >= s_.size())
            return fail("expected a value");
        char c = s_[pos_];
        if (c == '"') {
            v->kind = bp_value::STRING;
            return string(&v->text);
        }
        if (c == '[') {
            advance();
            v->kind = bp_value::LIST;
            while (!eat(']')) {
                bp_value item;
                if (!value(&item))
                    return false;
                v->list.push_back(item);
                if (!eat(',')) {
                    if (!eat(']'))
                        return fail("expected ',' or ']' in a list");
                    break;
                }
            }
            return true;
        }
        if (c == '{') {
            advance();
            v->kind = bp_value::MAP;
            return map_body(&v->map);
        }
        if (isdigit(static_cast<unsigned char>(c)) || c == '-') {
            v->kind = bp_value::INT;
            do {
                v->text.push_back(s_[pos_]);
                advance();
            } while (pos_ < s_.size() && isdigit(static_cast<unsigned char>(s_[pos_])));
            return true;
        }
        if (!ident(&v->text))
            return fail("expected a value");
        v->kind = v->text == "true" || v->text == "false" ? bp_value::BOOL : bp_value::IDENT;
        return true;
    }

    const std::string &s_;
    size_t pos_ = 0;
    int line_ = 1;
    std::string err_;
    int err_line_ = 0;
};

}  // namespace

std::string bp_module::name() const {
    auto it = props.find("name");
    return it == props.end() ? std::string() : it->second.text;
}

std::vector<std::string> bp_module::strings(const std::string &path) const {
    const std::map<std::string, bp_value> *level = &props;
    size_t at = 0;
    for (;;) {
        size_t dot = path.find('.', at);
        auto it = level->find(path.substr(at, dot == std::string::npos ? dot : dot - at));
        if (it == level->end())
            return {};
        if (dot == std::string::npos) {
            std::vector<std::string> out;
            for (const bp_value &v : it->second.list)
                out.push_back(v.text);
            return out;
        }
        level = &it->second.map;
        at = dot + 1;
    }
}

bool bp_parse(const std::string &text, std::vector<bp_module> *out, std::string *err) {
    parser p(text);
    if (p.file(out))
        return true;
    *err = p.error();
    return false;
}
