#include "tools/common/short_name.h"

#include <algorithm>
#include <array>

namespace {

constexpr size_t none = std::string_view::npos;

bool is_word(char letter) {
    return letter == '_' || letter == '$' || (letter >= '0' && letter <= '9') ||
           (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') || (letter & 0x80) != 0;
}

// Where what opens at the start of a text closes, or none. An arrow in an expression closes nothing.
size_t closing(std::string_view text) {
    std::string open;
    for (size_t at = 0; at < text.size(); ++at) {
        const char letter = text[at];
        if (letter == '<' || letter == '(' || letter == '[' || letter == '{') {
            open += letter;
            continue;
        }
        const size_t which = std::string_view(">)]}").find(letter);
        if (which == none || (letter == '>' && (text[at - 1] == '-' || open.back() != '<')))
            continue;
        if (open.back() != "<([{"[which])
            return none;
        open.pop_back();
        if (open.empty())
            return at;
    }
    return none;
}

class Shortening {
public:
    explicit Shortening(std::string_view name) : rest_(name) {}

    // Empty where the name is none that a C++ demangler writes.
    std::string result() {
        while (!rest_.empty())
            if (!take())
                return {};
        return std::move(short_);
    }

private:
    // False for what is no name.
    bool take() {
        if (is_operator())
            return take_operator();
        switch (rest_.front()) {
        case '<':
            return fold("<…>");
        case '[':
            return take_tag();
        case '{':
            return take_local();
        case '(':
            return take_parameters();
        case ' ': // behind the result
            short_.clear();
            rest_.remove_prefix(1);
            return true;
        default:
            take_letter();
            return true;
        }
    }

    void take_letter() {
        short_ += rest_.front();
        rest_.remove_prefix(1);
        static constexpr std::array<std::string_view, 4> inline_spaces = {
            "__cxx11::", "_V2::", "__1::", "__cxx1998::"};
        if (short_.ends_with("::"))
            for (const std::string_view space : inline_spaces)
                if (rest_.starts_with(space))
                    rest_.remove_prefix(space.size());
    }

    bool fold(std::string_view sign) {
        const size_t end = closing(rest_);
        if (end == none)
            return false;
        static constexpr std::string_view string = "std::basic_string";
        if (sign.empty() && short_.ends_with(' '))
            short_.pop_back();
        if (short_.ends_with(string) && rest_.starts_with("<char,"))
            short_.replace(short_.size() - string.size(), none, "std::string");
        else
            short_ += sign;
        rest_.remove_prefix(end + 1);
        return true;
    }

    // "[abi:cxx11]"
    bool take_tag() { return (rest_.starts_with("[abi:") || rest_.starts_with("[clone ")) && fold(""); }

    // "{lambda(int)#1}"
    bool take_local() {
        const size_t end = closing(rest_);
        if (end == none)
            return false;
        const std::string_view local = rest_.substr(0, end + 1);
        const size_t open = local.find('('), close = local.rfind(')');
        const bool has_parameters = open != none && close != none && open < close;
        short_ += has_parameters ? local.substr(0, open) : local;
        if (has_parameters)
            short_ += local.substr(close + 1);
        rest_.remove_prefix(end + 1);
        return true;
    }

    // Behind them may come what is const, and a name inside the function.
    bool take_parameters() {
        static constexpr std::string_view anonymous = "(anonymous namespace)";
        const size_t end = closing(rest_);
        if (end == none)
            return false;
        if (rest_.starts_with(anonymous)) {
            short_ += anonymous;
            rest_.remove_prefix(anonymous.size());
            return true;
        }
        rest_.remove_prefix(end + 1);
        static constexpr std::array<std::string_view, 5> qualifiers = {" const", " volatile",
                                                                       " noexcept", " &", "&"};
        for (bool found = true; found;) {
            found = false;
            for (const std::string_view qualifier : qualifiers)
                if (rest_.starts_with(qualifier)) {
                    rest_.remove_prefix(qualifier.size());
                    found = true;
                }
        }
        if (!rest_.starts_with("::"))
            rest_ = {};
        return true;
    }

    static constexpr std::string_view word = "operator";

    bool is_operator() const {
        return rest_.starts_with(word) && rest_.size() > word.size() && !is_word(rest_[word.size()]) &&
               (short_.empty() || !is_word(short_.back()));
    }

    // "operator<", "operator new[]" and "operator bool" have what would end a name elsewhere.
    bool take_operator() {
        static constexpr std::array<std::string_view, 18> symbols = {
            "\"\" ", "()",  "[]", " new[]", " new", " delete[]", " delete", "<=>", "<<=",
            ">>=",   "->*", "->", "<<",     ">>",   "<=",        ">=",      "<",   ">"};
        rest_.remove_prefix(word.size());
        short_ += word;
        for (const std::string_view symbol : symbols)
            if (rest_.starts_with(symbol)) {
                short_ += symbol;
                rest_.remove_prefix(symbol.size());
                if (!rest_.starts_with(" <")) // a space keeps operators apart that end so
                    return true;
                rest_.remove_prefix(1);
                short_ += ' ';
                return fold("<…>");
            }
        if (rest_.starts_with(' ')) { // to a type
            short_ += ' ';
            rest_.remove_prefix(1);
            while (!rest_.empty() && rest_.front() != '(')
                if (rest_.front() == '<') {
                    if (!fold("<…>"))
                        return false;
                } else {
                    take_letter();
                }
        }
        return true;
    }

    std::string_view rest_;
    std::string short_;
};

} // namespace

std::string short_name(std::string_view demangled) {
    if (demangled.find_first_of("<({[:") == none)
        return std::string(demangled);
    std::string name = Shortening(demangled).result();
    return name.empty() ? std::string(demangled) : name;
}
