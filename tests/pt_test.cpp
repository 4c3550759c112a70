#include <k42mc/pt.h>

#include "failing_hooks.h"
#include "random.h"
#include "small_stack.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <map>

namespace {

using Key = std::array<uint8_t, 16>; // bits past a tree's keyBits are arbitrary

struct Element {
    uint8_t front[16]; // the key field is this
    PTNode node;
    uint8_t back[16]; // or this
    const void *slots[4];
    Key key;
};

bool bit_of(const Key &key, int bit) {
    return key[size_t(bit) / 8] >> (7 - bit % 8) & 1;
}

bool leads_down(PTNode *from, PTNode *to) {
    return to != from && to->bit >= from->bit;
}

Element *element_of(PTNode *node) {
    return reinterpret_cast<Element *>(reinterpret_cast<char *>(node) - offsetof(Element, node));
}

void note_and_wreck(void *element) {
    hooks::destroy(element);
    std::memset(element, 0xa5, sizeof(Element));
}

// A tree, what it should hold, and a check that it does after each operation.
struct Tree {
    Tree(int keyBits, int keyIndirections, bool keyInFront)
        : bits(keyBits), indirections(keyIndirections),
          offset(keyInFront ? offsetof(Element, front) : offsetof(Element, back)) {
        EXPECT_EQ(PTInit(&tree, hooks::alloc, hooks::dealloc, offsetof(Element, node), uint32_t(offset),
                         int16_t(bits), uint8_t(indirections), note_and_wreck),
                  DS_OK);
        verify();
    }
    ~Tree() { PTDeinit(&tree); }

    Element *insert(const Key &key) {
        Element *element = &pool.emplace_back();
        fill(*element, key);
        const auto [at, added] = model.try_emplace(shortened(key), element);
        void *existing = this;
        PTInsert(tree, element, pool.size() % 4 ? &existing : nullptr);
        EXPECT_EQ(existing, pool.size() % 4 == 0 ? this : added ? nullptr : (void *)at->second);
        if (added)
            cursor = cached = nullptr;
        verify();
        return at->second;
    }

    void remove(const Key &key, bool byKey, bool destroy) {
        Element *const expected = stored(key);
        hooks::start();
        if (byKey && destroy)
            EXPECT_EQ(PTRemoveAndDestroyByKey(tree, argument(key)), expected ? DS_OK : DS_FAILURE);
        else if (byKey)
            EXPECT_EQ(PTRemoveByKey(tree, argument(key)), expected);
        else if (expected)
            (destroy ? PTRemoveAndDestroy : PTRemove)(tree, expected);
        EXPECT_EQ(hooks::calls, expected && destroy ? "X" : "");
        if (expected && (cursor == &expected->node || cached == &expected->node))
            cursor = cached = nullptr;
        model.erase(shortened(key));
        verify();
    }

    void destroy() {
        hooks::Blocks expected;
        if (!model.empty())
            post_order(tree->head->left, expected);
        hooks::start();
        PTDestroy(tree);
        EXPECT_EQ(hooks::destroyed, expected);
        model.clear();
        cursor = cached = nullptr;
        verify();
    }

    // As an ordered walk would.
    void fill_cache() {
        if (model.size() < 2)
            return;
        tree->cursor = cursor = &model.begin()->second->node;
        tree->head->right = cached = &std::next(model.begin())->second->node;
    }

    void verify() {
        PTNode *const head = tree->head;
        ASSERT_EQ(PTIsEmpty(tree), model.empty());
        ASSERT_EQ(PTAny(tree), model.empty() ? nullptr : element_of(head->left));
        ASSERT_EQ(tree->cursor, cursor);
        ASSERT_EQ(head->right, cached);
        std::vector<PTNode *> found, expected{head};
        ASSERT_NO_FATAL_FAILURE(walk(head, head->left, found));
        std::stable_partition(found.begin(), found.end(), [=](PTNode *node) { return node == head; });
        for (auto &[key, element] : model) {
            expected.push_back(&element->node);
            ASSERT_EQ(PTSearch(tree, argument(key)), element);
            Key other = key;
            other[0] ^= 0x80;
            ASSERT_EQ(PTSearch(tree, argument(other)), stored(other));
        }
        ASSERT_EQ(found, expected);
    }

    // Appends what a link and those below it lead up to, left to right.
    void walk(PTNode *from, PTNode *node, std::vector<PTNode *> &found) {
        if (!leads_down(from, node))
            return found.push_back(node);
        const Key own = key_of(node);
        ASSERT_TRUE(node->bit > from->bit || own == Key{} || key_of(from) == Key{});
        const size_t before = found.size();
        for (PTNode *next : {node->left, node->right}) {
            size_t i = found.size();
            ASSERT_NO_FATAL_FAILURE(walk(node, next, found));
            for (; i < found.size(); ++i) {
                ASSERT_TRUE((found[i] == tree->head && own == Key{}) ||
                            bit_of(key_of(found[i]), node->bit) == (next == node->right));
            }
        }
        ASSERT_EQ(std::count(found.begin() + ptrdiff_t(before), found.end(), node), 1);
    }

    void post_order(PTNode *node, hooks::Blocks &order) {
        for (PTNode *next : {node->left, node->right})
            if (leads_down(node, next))
                post_order(next, order);
        order.push_back(element_of(node));
    }

    Element *stored(const Key &key) {
        const auto at = model.find(shortened(key));
        return at == model.end() ? nullptr : at->second;
    }

    Key key_of(PTNode *node) { return node == tree->head ? Key{} : shortened(element_of(node)->key); }

    Key shortened(Key key) const {
        for (int bit = bits; bit < 128; ++bit)
            key[size_t(bit) / 8] &= uint8_t(~(0x80 >> bit % 8));
        return key;
    }

    void *fill(Element &element, const Key &key) {
        element.key = key;
        const void *target = &element.key;
        for (int i = 1; i < indirections; ++i) {
            element.slots[i] = target;
            target = &element.slots[i];
        }
        return std::memcpy(reinterpret_cast<char *>(&element) + offset, indirections ? &target : target,
                           indirections ? sizeof target : sizeof key);
    }

    const void *argument(const Key &key) { return fill(scratch, key); }

    PTTree *tree;
    int bits, indirections;
    size_t offset;
    std::map<Key, Element *> model;
    std::deque<Element> pool;
    Element scratch;
    PTNode *cursor = nullptr, *cached = nullptr;
};

Key low_bit(int bits) {
    Key key{};
    key[size_t(bits - 1) / 8] = uint8_t(0x80 >> (bits - 1) % 8);
    return key;
}

class PT : public testing::TestWithParam<int> {}; // that many key bits

TEST_P(PT, AgreesWithModel) {
    const int bits = GetParam();
    Random random;
    for (int variant = 0; variant < 8; ++variant) {
        Tree tree(bits, variant / 2, variant % 2);
        for (int step = 0; step < 600 && !HasFailure(); ++step) {
            Key key = random() % 4 ? Key{} : low_bit(bits); // those two are what is special
            for (size_t flips = random() % 3; flips; --flips)
                key[random() % (random() % 2 ? 16 : 2)] ^= uint8_t(1u << random() % 8);
            if (random() % 4 == 0)
                tree.fill_cache();
            // Every order of few keys, and now and then many.
            if (const size_t operation = random() % 100; operation < 1)
                tree.destroy();
            else if (operation < (step % 200 < 100 ? 55 : 35))
                tree.insert(key);
            else
                tree.remove(key, random() % 2, random() % 2);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(KeyBits, PT, testing::Values(1, 12, 32, 64, 128),
                         testing::PrintToStringParamName());

void expect_node(const PTNode &node, int bit, const PTNode *left, const PTNode *right) {
    EXPECT_EQ(node.bit, bit);
    EXPECT_EQ(node.left, left);
    EXPECT_EQ(node.right, right);
}

TEST(PTStructure, IsExact) {
    for (const bool byKey : {false, true}) {
        Tree tree(32, 0, false);
        PTNode *const head = tree.tree->head;
        PTNode &zero = tree.insert({})->node;
        expect_node(zero, 31, &zero, head);
        PTNode &one = tree.insert({0, 0, 0, 1})->node;
        expect_node(zero, 31, &zero, &one);
        expect_node(one, 31, head, &one);
        tree.destroy();

        PTNode &a = tree.insert({10, 0, 0, 1})->node, &b = tree.insert({10, 0, 0, 2})->node;
        PTNode &c = tree.insert({0xc0, 0xa8, 0, 1})->node;
        EXPECT_EQ(head->left, &c);
        expect_node(c, 0, &a, &c);
        expect_node(a, 4, head, &b);
        expect_node(b, 30, &a, &b);
        tree.remove({10, 0, 0, 1}, byKey, false); // its own child leads up to it
        expect_node(c, 0, &b, &c);
        expect_node(b, 4, head, &b);
    }
}

TEST(PTInit, RefusesKeysWithoutBits) {
    for (const int16_t bits : {0, -1, -32768}) {
        hooks::start();
        auto *tree = reinterpret_cast<PTTree *>(&hooks::calls);
        EXPECT_EQ(PTInit(&tree, hooks::alloc, hooks::dealloc, 0, 16, bits, 0, nullptr), DS_FAILURE);
        EXPECT_EQ(tree, nullptr);
        EXPECT_EQ(hooks::calls, "");
    }
}

void *destroy_tree(void *tree) {
    return PTDestroy(static_cast<PTTree *>(tree)), nullptr;
}

// A path through every bit of the longest key. Keys are windows into eight buffers with one bit set.
TEST(PTDestroy, NeedsNoStackForDeepTrees) {
    constexpr int bits = 32767, middle = 4096;
    struct Deep {
        const uint8_t *key;
        PTNode node;
    };
    std::vector<std::array<uint8_t, 2 * middle>> buffers(8);
    std::vector<Deep> elements(bits);
    hooks::Blocks expected;
    hooks::start();
    PTTree *tree;
    PTInit(&tree, nullptr, nullptr, offsetof(Deep, node), 0, bits, 1, hooks::destroy);
    for (size_t i = bits; i-- > 0;) { // upwards, so that inserting takes no long descent
        buffers[i % 8][middle] = uint8_t(0x80 >> i % 8);
        elements[i].key = &buffers[i % 8][middle - i / 8];
        PTInsert(tree, &elements[i], nullptr);
        expected.push_back(&elements[i]);
    }
    on_small_stack(destroy_tree, tree);
    EXPECT_TRUE(hooks::destroyed == expected);
    PTDeinit(&tree);
}

} // namespace
