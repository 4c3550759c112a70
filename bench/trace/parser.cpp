// A workload: parses nested lists and builds them, by recursive descent.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

struct Node {
    std::string word;
    std::vector<std::unique_ptr<Node>> children;
};

class Parser {
public:
    explicit Parser(const std::string &its_text) : text(its_text) {}

    std::unique_ptr<Node> node() {
        auto result = std::make_unique<Node>();
        if (text[at] == '(')
            list(*result);
        else
            word(*result);
        return result;
    }

private:
    void list(Node &result) {
        for (++at; text[at] != ')';)
            result.children.push_back(node());
        ++at;
    }

    void word(Node &result) {
        while (text[at] != ' ')
            result.word += text[at++];
        ++at;
    }

    const std::string &text;
    size_t at = 0;
};

std::string nested(int depth) {
    if (depth == 0)
        return "a-word-that-is-too-long-for-a-small-string ";
    const std::string inner = nested(depth - 1);
    return "(" + inner + "b " + inner + "c " + inner + ")";
}

} // namespace

int main() {
    const std::string text = nested(8);
    size_t nodes = 0;
    for (int round = 0; round < 3; ++round)
        nodes += Parser(text).node()->children.size();
    std::printf("%zu\n", nodes);
}
