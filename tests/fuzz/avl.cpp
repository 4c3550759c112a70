// The AVL tree against std::map, its structure walked after each operation.
#include "input.h"

#include <k42mc/avl.h>
#include <map>
#include <vector>

namespace {

struct Element {
    uint16_t key;
    AVLNode node;
};

using Model = std::map<uint16_t, Element *>;

int32_t compare(const void *a, const void *b) {
    return int32_t(*static_cast<const uint16_t *>(a)) - *static_cast<const uint16_t *>(b);
}

// Returns the height. next: the record that follows in order.
int height(const AVLNode *node, const AVLNode *next) {
    const bool thread = node->state & AVL_THREAD;
    const int left = node->left ? height(node->left, node) : 0;
    const int right = thread ? 0 : height(node->right, next);
    REQUIRE(!thread || node->right == next);
    const int tilt = left == right ? AVL_BALANCED : left > right ? AVL_LEFT_TILT : AVL_RIGHT_TILT;
    REQUIRE((left > right ? left - right : right - left) <= 1);
    REQUIRE(node->state == (tilt | (thread ? AVL_THREAD : 0)));
    return 1 + (left > right ? left : right);
}

void verify(const AVLTree *tree, const Model &model) {
    REQUIRE(AVLIsEmpty(tree) == model.empty());
    if (tree->root)
        height(tree->root, nullptr);
    void *element = AVLFirst(tree);
    for (const auto &[key, expected] : model) {
        REQUIRE(element == expected);
        element = AVLNext(tree, element);
    }
    REQUIRE(element == nullptr);
    element = AVLLast(tree);
    for (auto at = model.rbegin(); at != model.rend(); ++at) {
        REQUIRE(element == at->second);
        element = AVLPrev(tree, element);
    }
    REQUIRE(element == nullptr && AVLCheck(tree) == DS_OK);
}

Element *stored(const Model &model, uint16_t key) {
    const auto at = model.find(key);
    return at == model.end() ? nullptr : at->second;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input(data, size);
    std::vector<Element> pool(512);
    AVLTree *tree;
    Model model;
    REQUIRE(AVLInit(&tree, std::malloc, std::free, offsetof(Element, node), offsetof(Element, key),
                    compare, DS_DUMMY) == DS_OK);
    while (input.more()) {
        const uint8_t operation = input.byte();
        const uint16_t key = uint16_t(input.byte() | (operation & 1) << 8);
        Element *present = stored(model, key);
        if (operation < 150) {
            pool[key].key = key;
            void *existing = nullptr;
            if (!present)
                AVLInsert(tree, &pool[key], &existing);
            REQUIRE(existing == nullptr);
            model[key] = &pool[key];
            Element other{key, {}};
            AVLInsert(tree, &other, &existing);
            REQUIRE(existing == &pool[key]);
        } else if (operation < 190) {
            REQUIRE(AVLRemoveByKey(tree, &key) == present);
            model.erase(key);
        } else if (operation < 220 && present) {
            AVLRemove(tree, present);
            model.erase(key);
        } else if (operation < 250) {
            REQUIRE(AVLRemoveFirst(tree) == (model.empty() ? nullptr : model.begin()->second));
            if (!model.empty())
                model.erase(model.begin());
        } else {
            AVLDestroy(tree);
            model.clear();
        }
        const auto above = model.upper_bound(key);
        REQUIRE(AVLSearch(tree, &key) == stored(model, key));
        REQUIRE(AVLNextByKey(tree, &key) == (above == model.end() ? nullptr : above->second));
        verify(tree, model);
    }
    AVLDeinit(&tree);
    return 0;
}
