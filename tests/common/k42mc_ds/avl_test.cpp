#include <k42mc/avl.hpp>

#include "capture.h"
#include "ordered_suite.h"

#include <memory>

namespace {

using namespace std::string_literals;

struct Element {
    using Key = uint32_t;
    explicit Element(Key number) : key(number) {}
    Key key;
    AVLNode node{};
};

Element *element_of(const AVLNode *node) {
    return node ? k42mc::member<&Element::node>::element(node) : nullptr;
}

int32_t compare(const void *sought, const void *present) {
    const uint32_t a = *static_cast<const uint32_t *>(sought),
                   b = *static_cast<const uint32_t *>(present);
    return a < b ? INT32_MIN : a > b;
}

// What the tree is meant to be like: shapes that never change, by the recursive definition.
struct Shape;
using Model = std::shared_ptr<const Shape>;
struct Shape {
    Model left;
    uint32_t key;
    Model right;
    int height;
};

int height(const Model &model) {
    return model ? model->height : 0;
}

Model make(const Model &left, uint32_t key, const Model &right) {
    return std::make_shared<Shape>(Shape{left, key, right, 1 + std::max(height(left), height(right))});
}

Model mirrored(const Model &model) {
    return model ? make(mirrored(model->right), model->key, mirrored(model->left)) : nullptr;
}

Model balanced(const Model &left, uint32_t key, const Model &right) {
    if (height(right) > height(left) + 1)
        return mirrored(balanced(mirrored(right), key, mirrored(left)));
    if (height(left) <= height(right) + 1)
        return make(left, key, right);
    const Model &inner = left->right;
    if (height(left->left) >= height(inner))
        return make(left->left, left->key, make(inner, key, right));
    return make(make(left->left, left->key, inner->left), inner->key, make(inner->right, key, right));
}

Model with(const Model &model, uint32_t key) {
    if (!model)
        return make(nullptr, key, nullptr);
    return key < model->key ? balanced(with(model->left, key), model->key, model->right)
                            : balanced(model->left, model->key, with(model->right, key));
}

Model without(const Model &model, uint32_t key) {
    if (key < model->key)
        return balanced(without(model->left, key), model->key, model->right);
    if (key > model->key)
        return balanced(model->left, model->key, without(model->right, key));
    if (!model->left)
        return model->right;
    const Shape *last = model->left.get();
    while (last->right)
        last = last->right.get();
    return balanced(without(model->left, last->key), last->key, model->right);
}

uint8_t tilt(const Model &model) {
    const int difference = height(model->left) - height(model->right);
    return difference == 0 ? AVL_BALANCED : difference > 0 ? AVL_LEFT_TILT : AVL_RIGHT_TILT;
}

// `next` follows the subtree in order.
void expect_shape(const AVLNode *node, const Model &model, const AVLNode *next) {
    ASSERT_EQ(!node, !model);
    if (!model)
        return;
    ASSERT_EQ(element_of(node)->key, model->key);
    ASSERT_LE(std::abs(height(model->left) - height(model->right)), 1);
    ASSERT_EQ(node->state, tilt(model) | (model->right ? 0 : AVL_THREAD));
    ASSERT_NO_FATAL_FAILURE(expect_shape(node->left, model->left, node));
    if (model->right)
        ASSERT_NO_FATAL_FAILURE(expect_shape(node->right, model->right, next));
    else
        ASSERT_EQ(node->right, next);
}

// The shape of a tree that may be any.
Model shape_of(const AVLNode *node) {
    if (!node)
        return nullptr;
    return make(shape_of(node->left), element_of(node)->key,
                node->state & AVL_THREAD ? nullptr : shape_of(node->right));
}

void expect_sound(const AVLTree *tree) {
    expect_shape(tree->root, shape_of(tree->root), nullptr);
}

struct ByFunctions {
    using Element = ::Element;
    ByFunctions() {
        AVLInit(&tree, hooks::alloc, hooks::dealloc, offsetof(Element, node), offsetof(Element, key),
                compare, note_and_wreck<Element>);
    }
    ~ByFunctions() { AVLDeinit(&tree); }

    static Element *as(void *element) { return static_cast<Element *>(element); }
    Element *insert(Element &element) {
        void *existing = this;
        AVLInsert(tree, &element, &existing);
        return as(existing);
    }
    bool empty() { return AVLIsEmpty(tree); }
    Element *any() { return as(AVLAny(tree)); }
    Element *search(uint32_t key) { return as(AVLSearch(tree, &key)); }
    void remove(Element &element) { AVLRemove(tree, &element); }
    Element *remove_key(uint32_t key) { return as(AVLRemoveByKey(tree, &key)); }
    Element *remove_first() { return as(AVLRemoveFirst(tree)); }
    void remove_and_destroy(Element &element) { AVLRemoveAndDestroy(tree, &element); }
    int32_t remove_and_destroy_key(uint32_t key) { return AVLRemoveAndDestroyByKey(tree, &key); }
    Element *first() { return as(AVLFirst(tree)); }
    Element *last() { return as(AVLLast(tree)); }
    Element *next(Element &element) { return as(AVLNext(tree, &element)); }
    Element *prev(Element &element) { return as(AVLPrev(tree, &element)); }
    Element *next_by_key(uint32_t key) { return as(AVLNextByKey(tree, &key)); }
    void clear() { AVLDestroy(tree); }
    template <class Visit> int32_t visit(uint32_t order, Visit visit) {
        const DSVisitArgFn call = [](void *element, void *f) {
            return (*static_cast<Visit *>(f))(*as(element));
        };
        return AVLVisitWithArg(tree, order, call, &visit);
    }
    void verify(const std::vector<Element *> &) { expect_sound(tree); }

    AVLTree *tree;
};

using View = k42mc::avl_view<Element, &Element::node, &Element::key>;

struct ByFrontEnd : k42mc::owner<View> {
    using Element = ::Element;
    ByFrontEnd() : owner({hooks::alloc, hooks::dealloc, note_and_wreck<Element>}) {}
    void remove_and_destroy(Element &element) { AVLRemoveAndDestroy(record(), &element); }
    int32_t remove_and_destroy_key(uint32_t key) { return AVLRemoveAndDestroyByKey(record(), &key); }
    void verify(const std::vector<Element *> &) { expect_sound(record()); }
};

using Trees = testing::Types<ByFunctions, ByFrontEnd>;
INSTANTIATE_TYPED_TEST_SUITE_P(AVL, Ordered, Trees);

uint32_t count(const Model &model) {
    return model ? count(model->left) + 1 + count(model->right) : 0;
}

// All trees of so many levels, with every second key from the given one.
std::vector<Model> all_shapes(int levels, uint32_t least) {
    if (levels <= 0)
        return std::vector<Model>(levels == 0);
    std::vector<Model> shapes;
    for (const int left : {levels - 2, levels - 1})
        for (const Model &l : all_shapes(left, least))
            for (const int right : {levels - 2, levels - 1})
                for (const uint32_t key = least + 2 * count(l);
                     const Model &r : all_shapes(right, key + 2))
                    if (left + right > 2 * levels - 4)
                        shapes.push_back(make(l, key, r));
    return shapes;
}

// The one with the fewest elements, all of which tilt to one side.
Model sparse_shape(int levels, uint32_t least, bool toLeft) {
    if (levels <= 0)
        return nullptr;
    const Model left = sparse_shape(levels - (toLeft ? 1 : 2), least, toLeft);
    const uint32_t key = least + 2 * count(left);
    return make(left, key, sparse_shape(levels - (toLeft ? 2 : 1), key + 2, toLeft));
}

// A tree made by hand. There is an element for each key, linked or not.
struct Built : ByFunctions {
    explicit Built(const Model &model) {
        for (uint32_t key = 0; key <= 2 * count(model); ++key)
            elements.emplace_back(key);
        tree->root = link(model, nullptr);
    }
    ~Built() { tree->root = nullptr; }

    AVLNode *link(const Model &model, AVLNode *next) {
        if (!model)
            return nullptr;
        AVLNode *node = &elements[model->key].node;
        *node = {link(model->left, node), model->right ? link(model->right, next) : next,
                 uint8_t(tilt(model) | (model->right ? 0 : AVL_THREAD))};
        return node;
    }

    std::vector<Element> elements;
};

void expect_change(const Model &model, uint32_t key, int way) {
    Built built(model);
    AVLTree *const tree = built.tree;
    Element &element = built.elements[key];
    if (key % 2 == 0)
        way % 2 ? AVLInsert(tree, &element, nullptr) : void(View(tree).insert(element));
    else if (way < 2)
        way ? AVLRemove(tree, &element) : View(tree).remove(element);
    else
        EXPECT_EQ(key == 1 && way == 2 ? AVLRemoveFirst(tree) : AVLRemoveByKey(tree, &key), &element);
    expect_shape(tree->root, key % 2 ? without(model, key) : with(model, key), nullptr);
}

TEST(AVL, ChangesShapeAsDefined) {
    std::vector<Model> shapes;
    for (int levels = 0; levels <= 4; ++levels)
        for (const Model &model : all_shapes(levels, 1))
            shapes.push_back(model);
    EXPECT_EQ(shapes.size(), 1 + 1 + 3 + 15 + 315);
    for (const int levels : {5, 6})
        for (const bool toLeft : {false, true})
            shapes.push_back(sparse_shape(levels, 1, toLeft));
    for (const Model &model : shapes)
        for (uint32_t key = 0; key <= 2 * count(model) && !HasFailure(); ++key)
            for (const int way : {0, 1, 2, 3})
                expect_change(model, key, way);
}

using Keys = std::vector<uint32_t>;
Keys noted;

void note_and_forget(void *element) {
    noted.push_back(static_cast<Element *>(element)->key);
    std::memset(element, 0xa5, sizeof(Element));
}

int32_t note_until(void *element, void *last) {
    noted.push_back(static_cast<Element *>(element)->key);
    return noted.back() == *static_cast<uint32_t *>(last) ? -3 : 0;
}

Keys pre_order(const Model &model) {
    Keys keys;
    if (model) {
        keys.push_back(model->key);
        for (const Model &side : {model->left, model->right})
            for (const uint32_t key : pre_order(side))
                keys.push_back(key);
    }
    return keys;
}

// The reverse of the mirror image's pre-order.
Keys post_order(const Model &model) {
    const Keys keys = pre_order(mirrored(model));
    return Keys(keys.rbegin(), keys.rend());
}

TEST(AVL, VisitsParentsBeforeAndAfterChildren) {
    for (const Model &model : all_shapes(4, 1)) {
        for (const uint32_t order : {2u, 3u}) {
            Keys expected = order == 2 ? pre_order(model) : post_order(model);
            for (uint32_t last : {UINT32_MAX, expected.back(), expected[4]}) {
                noted.clear();
                EXPECT_EQ(AVLVisitWithArg(Built(model).tree, order, note_until, &last),
                          last == UINT32_MAX ? 0 : -3);
                expected.resize(last == expected[4] ? 5 : expected.size());
                EXPECT_EQ(noted, expected);
            }
        }
        for (const bool destroy : {false, true}) {
            Built built(model);
            built.tree->destroy = note_and_forget;
            noted.clear();
            destroy ? AVLDestroy(built.tree) : AVLVisit(built.tree, 3, note_and_forget);
            EXPECT_EQ(noted, post_order(model));
        }
    }
    noted.clear();
    for (const auto &[model, result] : {std::pair(sparse_shape(1, 1, true), DS_FAILURE), {nullptr, 0}})
        for (const uint32_t unknown : {4u, UINT32_MAX})
            EXPECT_EQ(AVLVisitWithArg(Built(model).tree, unknown, note_until, &noted), result);
    EXPECT_EQ(noted, Keys());
}

// Once for each level, the sought key first.
TEST(AVL, ComparesNoMoreThanItMust) {
    static std::vector<const void *> calls;
    Built built(all_shapes(2, 1).back()); // 3 above 1 and 5
    AVLTree *const tree = built.tree;
    std::vector<Element> &with = built.elements;
    tree->compare = [](const void *sought, const void *present) {
        calls.insert(calls.end(), {sought, present});
        return compare(sought, present);
    };
    const auto expect_calls = [&](const uint32_t &sought, const Keys &present) {
        std::vector<const void *> expected;
        for (const uint32_t key : present)
            expected.insert(expected.end(), {&sought, &with[key].key});
        EXPECT_EQ(std::exchange(calls, {}), expected);
    };

    const uint32_t four = 4;
    EXPECT_EQ(AVLSearch(tree, &four), nullptr);
    expect_calls(four, {3, 5});
    EXPECT_EQ(AVLNextByKey(tree, &four), &with[5]);
    expect_calls(four, {3, 5});
    EXPECT_EQ(AVLRemoveByKey(tree, &four), nullptr);
    expect_calls(four, {3, 5});
    AVLInsert(tree, &with[6], nullptr);
    expect_calls(with[6].key, {3, 5});
    EXPECT_EQ(AVLPrev(tree, &with[6]), &with[5]);
    expect_calls(with[6].key, {3, 5});
    AVLRemove(tree, &with[6]);
    expect_calls(with[6].key, {3, 5});
    EXPECT_EQ(AVLPrev(tree, &with[3]), &with[1]);
    EXPECT_EQ(AVLNext(tree, &with[3]), &with[5]);
    EXPECT_EQ(AVLRemoveFirst(tree), &with[1]);
    EXPECT_EQ(calls.size(), 0);
}

TEST(AVL, FrontEndBringsItsOrderAlong) {
    struct Descending {
        auto operator()(uint32_t a, uint32_t b) const { return b <=> a; }
    };
    k42mc::avl_tree<Element, &Element::node, &Element::key, Descending> tree;
    Element one(1), two(2), three(3), again(3);
    AVLInsert(tree.record(), &one, nullptr);
    EXPECT_EQ(tree.insert(three), nullptr);
    AVLInsert(tree.record(), &two, nullptr);
    EXPECT_EQ(tree.insert(again), &three);
    EXPECT_EQ(tree.first(), &three);
    EXPECT_EQ(tree.next(three), &two);
    EXPECT_EQ(AVLSearch(tree.record(), &one.key), tree.last());
}

TEST(AVL, PrintsStatisticsAndStructure) {
    std::vector<Element> elements;
    ByFunctions tree;
    const auto expect_printed = [&](const std::string &info, const std::string &dump) {
        EXPECT_EQ(captured_stdout([&] { AVLInfo(tree.tree); }), "===========AVL Info=========\n" + info);
        EXPECT_EQ(captured_stdout([&] { AVLDump(tree.tree); }), "===========AVL Dump=========\n" + dump);
    };
    expect_printed(">>>>> EMPTY <<<<<\n", ">>>>> EMPTY <<<<<\n");
    for (const uint32_t key : {0xffu, 2u, 0xabcu, 1u, 0xfedcba98u, 0x10u, 0u})
        elements.emplace_back(key);
    for (Element &element : elements)
        tree.insert(element);
    expect_printed("> number of entries : 7\n"
                   "> max height        : 4\n"
                   "> average height    : 2.571429\n",
                   "           \0fedcba98\0\n"
                   "     \0abc.\n"
                   ".ff\0\n"
                   "           \00010\0\n"
                   "     .2\0\n"
                   "           .1\0\n"
                   "                 \0000\0\n"s);
}

TEST(AVL, CheckFindsFaults) {
    const auto expect_said = [](const AVLTree *tree, int32_t expected, const std::string &text) {
        EXPECT_EQ(captured_stdout([=] { EXPECT_EQ(AVLCheck(tree), expected); }), text);
    };
    Built none(nullptr), built(sparse_shape(3, 1, false)); // 3 above 1 and 5, 5 above 7
    expect_said(none.tree, DS_OK, ">>>>>> AVLCheck: OK\n");
    expect_said(built.tree, DS_OK, ">>>>>> AVLCheck: OK\n");
    const auto expect_fault = [&](uint32_t key, int state, const std::string &details) {
        built.elements[key].node.state = uint8_t(state);
        expect_said(built.tree, DS_FAILURE,
                    "common/lib/libk42mc/k42mc_ds:3153: >>>>>> FAULT in AVL:\n" +
                        (" heights(" + details + " tilt\n"));
    };
    expect_fault(3, AVL_BALANCED, "L:1, R:2), no"); // those that follow are found before it
    expect_fault(5, AVL_LEFT_TILT, "L:0, R:1), left");
    expect_fault(7, AVL_LEFT_TILT | AVL_THREAD, "L:0, R:0), left");
    expect_fault(1, AVL_RIGHT_TILT | AVL_THREAD, "L:0, R:0), right");
    Built lopsided(sparse_shape(3, 1, false));
    lopsided.elements[3].node.left = nullptr;
    expect_said(lopsided.tree, DS_FAILURE,
                "common/lib/libk42mc/k42mc_ds:3153: >>>>>> FAULT in AVL:\n"
                " heights(L:0, R:2), right tilt\n");
}

// More ways through it than anybody can walk.
TEST(AVL, CheckWalksSharedSubtreesOnce) {
    std::vector<Element> elements(40, Element(0));
    ByFunctions tree;
    for (Element &element : elements) {
        AVLNode *const below = tree.tree->root;
        element.node = {below, below, AVL_BALANCED};
        tree.tree->root = &element.node;
    }
    EXPECT_EQ(captured_stdout([&] { AVLCheck(tree.tree); }), ">>>>>> AVLCheck: OK\n");
    elements.front().node.left = tree.tree->root;
    EXPECT_EQ(
        captured_stdout([&] { AVLCheck(tree.tree); }),
        "common/lib/libk42mc/k42mc_ds:3153: >>>>>> FAULT in AVL:\n heights(L:48, R:48), no tilt\n");
    tree.tree->root = nullptr;
}

} // namespace
