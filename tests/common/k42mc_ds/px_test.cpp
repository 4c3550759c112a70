#include <k42mc/px.hpp>

#include "capture.h"
#include "failing_hooks.h"
#include "random.h"
#include "small_stack.h"

#include <array>
#include <cstring>
#include <deque>
#include <map>
#include <set>
#include <sys/mman.h>

namespace {

using List = hooks::Blocks; // of elements or nodes

template <size_t Bytes> using Key = std::array<uint8_t, Bytes>;

template <size_t Bytes> struct Route {
    uint16_t length;
    Key<Bytes> key; // what lies past the length is arbitrary
    Route *chain;
};

bool bit_of(const uint8_t *key, int bit) {
    return key[bit / 8] >> (7 - bit % 8) & 1;
}

template <size_t Bytes> Key<Bytes> shortened(Key<Bytes> key, int length) {
    for (int bit = std::max(length, 0); bit < 8 * int(Bytes); ++bit)
        key[size_t(bit) / 8] &= uint8_t(~(0x80 >> bit % 8));
    return key;
}

// A copy of that many bits of a key, right before memory that cannot be read.
template <size_t Bytes> const Key<Bytes> &at_edge(const Key<Bytes> &key, int bits = 8 * Bytes) {
    static auto *const pages = static_cast<char *>(
        mmap(nullptr, 0x2000, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(pages + 0x1000, 0x1000, PROT_NONE);
    const size_t size = size_t(std::max(bits, 0) + 7) / 8;
    return *static_cast<Key<Bytes> *>(std::memcpy(pages + 0x1000 - size, key.data(), size));
}

template <class Element> void note_and_wreck(void *element) {
    hooks::destroy(element);
    std::memset(element, 0xa5, sizeof(Element));
}

// A table, what it should hold, and steps that check all of it. C functions and front end take turns.
template <size_t Bytes> struct Table {
    using Element = Route<Bytes>;
    using View = k42mc::px_view<Element, &Element::chain, &Element::key, &Element::length>;
    static constexpr int width = 8 * int(Bytes);

    Table() {
        hooks::start();
        EXPECT_EQ(View::create(&table, {hooks::alloc, hooks::dealloc, note_and_wreck<Element>}), DS_OK);
    }
    ~Table() { PXDeinit(&table); }

    // By turns most steps insert and most remove. next() makes a key and a length.
    template <class Next> void run(int count, int verifyEvery, Next next) {
        for (int i = 0; i < count && !testing::Test::HasFailure(); ++i) {
            auto [key, length] = next(random);
            for (int bit = length; bit < width; ++bit)
                key[size_t(bit) / 8] ^= uint8_t(random() & (0x80u >> bit % 8));
            const unsigned operation = random() % 200, inserts = i % 1000 < 500 ? 150 : 50;
            hooks::start(random() % 4 ? 0 : 1 + int(random() % 2)); // that allocation fails
            if (operation == 0)
                clear();
            else if (operation < inserts && model.size() < 150)
                insert(key, length);
            else
                operation % 2 ? remove_one(random() % 2) : remove_key(key, length, random() % 2);
            live += hooks::given.size() - hooks::freed.size();
            if (i % verifyEvery == 0)
                verify();
            expect_answers(key, length);
            expect_answers(key, int(random() % (width + 2)) - 1);
        }
    }

    void insert(const Key<Bytes> &key, int length) {
        Element *element = nullptr;
        List added;
        do {
            element = &pool.emplace_back(Element{uint16_t(length), key, element});
            added.insert(added.begin(), element);
        } while (random() % 8 == 0); // it heads a chain of its own
        int32_t result = DS_OK;
        if (random() % 2) {
            result = PXInsert(table, element);
        } else {
            try {
                View(table).insert(*element);
            } catch (const std::bad_alloc &) {
                result = DS_NOMEM;
            }
        }
        if (!hooks::given.empty() && !hooks::given.back()) {
            hooks::given.pop_back();
            ASSERT_EQ(result, DS_NOMEM);
            ASSERT_EQ(hooks::freed, hooks::given);
            return;
        }
        ASSERT_EQ(result, DS_OK);
        List &chain = model[{length, shortened(key, length)}];
        chain.insert(chain.begin(), added.begin(), added.end());
    }

    void remove_one(bool destroys) {
        if (model.empty())
            return;
        const auto at = std::next(model.begin(), int(random() % model.size()));
        List &chain = at->second;
        const auto removed = chain.begin() + int(random() % chain.size());
        auto *element = static_cast<Element *>(*removed);
        if (destroys)
            PXRemoveAndDestroy(table, element);
        else
            random() % 2 ? PXRemove(table, element) : View(table).remove(*element);
        ASSERT_TRUE(destroys || !element->chain);
        expect_removal(destroys ? List{element} : List{});
        chain.erase(removed);
        if (chain.empty())
            model.erase(at);
    }

    void remove_key(const Key<Bytes> &key, int length, bool destroys) {
        const List chain = find(key, length);
        const Key<Bytes> &part = at_edge(key, length);
        if (destroys) {
            ASSERT_EQ(PXRemoveAndDestroyByKey(table, &part, int16_t(length)),
                      chain.empty() ? DS_FAILURE : DS_OK);
        } else {
            void *removed = random() % 2 ? PXRemoveByKey(table, &part, int16_t(length))
                                         : View(table).remove_key(key, length);
            ASSERT_NO_FATAL_FAILURE(expect_chain(removed, chain));
        }
        expect_removal(destroys ? chain : List{});
        model.erase({length, shortened(key, length)});
    }

    void expect_removal(const List &destroyed) {
        ASSERT_EQ(hooks::destroyed, destroyed);
        ASSERT_EQ(hooks::calls,
                  std::string(hooks::freed.size(), 'F') + std::string(destroyed.size(), 'X'));
    }

    void clear() {
        verify();
        hooks::start();
        random() % 2 ? View(table).clear() : PXDestroy(table);
        ASSERT_EQ(hooks::calls, tear_down);
        ASSERT_EQ(hooks::destroyed, all);
        ASSERT_EQ(hooks::freed, nodes);
        model.clear();
    }

    void verify() {
        for (List *list : {&orders[0], &orders[2], &orders[3], &all, &nodes})
            list->clear();
        tear_down.clear();
        sum = highest = 0;
        ASSERT_NO_FATAL_FAILURE(look_at(table->root, 1));
        orders[1].assign(orders[0].rbegin(), orders[0].rend());
        ASSERT_EQ(orders[0].size(), model.size());
        ASSERT_EQ(nodes.size(), live);
        ASSERT_EQ(PXIsEmpty(table), model.empty());
        ASSERT_EQ(View(table).empty(), model.empty());
        ASSERT_EQ(View(table).any(), PXAny(table));
        ASSERT_EQ(std::count(all.begin(), all.end(), PXAny(table)), !model.empty());
        ASSERT_NO_FATAL_FAILURE(expect_steps());
        for (int order = -1; order <= 4; ++order)
            for (const size_t stop : {model.size() + 1, 1 + random() % (model.size() + 1)})
                ASSERT_NO_FATAL_FAILURE(expect_visits(order, stop));
        expect_texts();
    }

    // A node stands for its own prefix and has elements or two sides: that leaves one shape.
    void look_at(PXNode *node, unsigned depth) {
        if (!node)
            return;
        const auto bits = shortened(some(node)->key, node->length);
        const List chain = find(bits, node->length);
        if (node->element) {
            ASSERT_NO_FATAL_FAILURE(expect_chain(node->element, chain));
            orders[2].push_back(node->element);
            sum += depth;
            highest = std::max(highest, depth);
        } else {
            ASSERT_TRUE(node->left && node->right);
        }
        const auto look_below = [&](PXNode *child) {
            if (!child)
                return;
            ASSERT_GT(child->length, node->length);
            ASSERT_EQ(shortened(some(child)->key, node->length), bits);
            ASSERT_EQ(bit_of(some(child)->key.data(), node->length), child == node->right);
            look_at(child, depth + 1);
        };
        ASSERT_NO_FATAL_FAILURE(look_below(node->left));
        if (node->element)
            orders[0].push_back(node->element);
        ASSERT_NO_FATAL_FAILURE(look_below(node->right));
        if (node->element) {
            orders[3].push_back(node->element);
            all.insert(all.end(), chain.begin(), chain.end());
            tear_down += std::string(chain.size(), 'X');
        }
        tear_down += 'F';
        nodes.push_back(node);
    }

    static Element *some(const PXNode *node) {
        return node->element ? static_cast<Element *>(node->element) : some(node->left);
    }

    void expect_chain(void *first, const List &expected) {
        List chain;
        for (; first; first = View(table).same_prefix(*static_cast<Element *>(first)))
            chain.push_back(first);
        ASSERT_EQ(chain, expected);
    }

    void expect_steps() {
        const auto collected = [this](void *at, auto step) {
            List found;
            for (; at && found.size() <= model.size(); at = step(table, at))
                found.push_back(at);
            return found;
        };
        ASSERT_EQ(collected(PXFirst(table), PXNext), orders[0]);
        ASSERT_EQ(collected(PXLast(table), PXPrev), orders[1]);
        List next, prev;
        for (Element &element : View(table))
            next.push_back(&element);
        for (auto at = View(table).end(); at != View(table).begin();)
            prev.push_back(&*--at);
        ASSERT_EQ(next, orders[0]);
        ASSERT_EQ(prev, orders[1]);
    }

    // The callbacks return something other than 0 at the element with that number, counted from 1.
    void expect_visits(int order, size_t stop) {
        static size_t left;
        const auto call = [](void *element, void *argument) -> int32_t {
            static_cast<List *>(argument)->push_back(element);
            return --left ? 0 : -7;
        };
        const bool known = order >= 0 && order < 4;
        List expected = known ? orders[order] : List{}, seen, typed;
        const int32_t result = stop <= expected.size() ? -7 : !known && !model.empty();
        left = stop;
        ASSERT_EQ(PXVisitWithArg(table, order, call, &seen), result);
        left = stop;
        ASSERT_EQ(View(table).visit(order, [&](Element &at) { return call(&at, &typed); }), result);
        hooks::start();
        PXVisit(table, order, hooks::destroy);
        ASSERT_EQ(hooks::destroyed, expected);
        expected.resize(std::min(stop, expected.size()));
        ASSERT_EQ(seen, expected);
        ASSERT_EQ(typed, expected);
    }

    void expect_texts() {
        char info[400] = ">>>>> EMPTY <<<<<\n";
        if (const size_t prefixes = model.size())
            std::snprintf(info, sizeof info,
                          "(counting duplicates as one)\n> number of prefixes : %zu\n"
                          "> max height         : %u\n> average height     : %f\n"
                          "> efficiency (%%)     : %f (%zu/%zu)\n",
                          prefixes, highest, double(sum) / double(prefixes),
                          100 * double(prefixes) / double(nodes.size()), prefixes, nodes.size());
        EXPECT_EQ(captured_stdout([&] {
                      PXInfo(table);
                      EXPECT_EQ(PXCheck(table), DS_OK);
                  }),
                  std::string("===========PX Info=========\n") + info + ">>>>>> PXCheck: OK\n");
    }

    void expect_answers(const Key<Bytes> &key, int length) {
        const Key<Bytes> &part = at_edge(key, length);
        void *found = longest(key, length);
        ASSERT_EQ(PXSearchLMPForPrefix(table, &part, int16_t(length)), found);
        ASSERT_EQ(View(table).search_longest(key, length), found);
        found = first(find(key, length));
        ASSERT_EQ(PXSearch(table, &part, int16_t(length)), found);
        ASSERT_EQ(View(table).search(key, length), found);
        found = longest(key, width);
        ASSERT_EQ(PXSearchLMP(table, &at_edge(key)), found);
        ASSERT_EQ(View(table).search_longest(at_edge(key)), found);
    }

    static void *first(const List &chain) { return chain.empty() ? nullptr : chain[0]; }

    List find(const Key<Bytes> &key, int length) {
        const auto at = model.find({length, shortened(key, length)});
        return at == model.end() ? List{} : at->second;
    }

    void *longest(const Key<Bytes> &key, int limit) {
        while (limit >= 0 && find(key, limit).empty())
            --limit;
        return first(find(key, limit));
    }

    Random random;
    PXTable *table;
    std::map<std::pair<int, Key<Bytes>>, List> model; // chains by length and prefix
    std::deque<Element> pool;
    size_t live = 0; // nodes

    // The table as the last verify() found it.
    List orders[4], all, nodes;
    std::string tear_down;
    unsigned sum, highest;
};

TEST(PX, AgreesWithModel) {
    // Prefixes of prefixes, here and there a bit apart.
    Table<4>().run(4000, 1, [](Random &random) {
        Key<4> key{};
        for (size_t flips = random() % 3; flips; --flips)
            key[random() % 4] ^= uint8_t(0x80 >> random() % 3);
        return std::pair(key, int(random() % 3 ? 8 * (random() % 5) : random() % 33));
    });
    // Branches off one path through 128 bits: more of them than what a walk remembers of its way.
    Table<16>().run(4000, 40, [](Random &random) {
        Key<16> key{0x5a, 0xff, 0, 0x81};
        const unsigned bit = random() % 129;
        if (bit < 128)
            key[bit / 8] ^= uint8_t(0x80 >> bit % 8);
        return std::pair(key, int(bit < 128 && random() % 8 ? bit + 1 : bit));
    });
}

// A table whose check looks at nothing but links and lengths.
std::string checked(PXNode *root, int32_t result) {
    PXTable table{};
    table.root = root;
    return captured_stdout([&] { EXPECT_EQ(PXCheck(&table), result); });
}

const std::string path = "common/lib/libk42mc/k42mc_ds:";

// What the check says by its definition, each node once: of the others it says the same.
std::string fault_below(const PXNode *node, std::set<const PXNode *> &seen) {
    if (!node || !seen.insert(node).second)
        return "";
    for (const auto &[below, line] : {std::pair(node->left, "5386"), std::pair(node->right, "5397")}) {
        if (below && below->length <= node->length)
            return path + line + ": >>>>>> FAULT in PX: " + std::to_string(node->length) + " : " +
                   std::to_string(below->length) + "\n";
        if (const std::string fault = fault_below(below, seen); !fault.empty())
            return fault;
    }
    return "";
}

// A node of each length, with a leaf beside the next: links lead to any other nodes, none, or nodes that
// are there already, at all depths.
TEST(PXCheck, ComesBackFromAnyDamage) {
    Random random;
    std::map<std::string, int> outcomes;
    for (int round = 0; round < 300; ++round) {
        std::vector<PXNode> nodes(257);
        for (size_t i = 0; i < nodes.size(); ++i) {
            const bool has_more = i % 2 == 0 && i + 2 < nodes.size();
            nodes[i] = {has_more ? &nodes[i + 2] : nullptr, has_more ? &nodes[i + 1] : nullptr,
                        reinterpret_cast<void *>(uintptr_t(random())), int16_t((i + 1) / 2)};
        }
        const auto any = [&](int above) { // whose length grows, as a rule
            PXNode *node = &nodes[random() % nodes.size()];
            for (int tries = random() % 16 ? 100 : 0; tries && node->length <= above; --tries)
                node = &nodes[random() % nodes.size()];
            return node;
        };
        for (unsigned damages = random() % 100; damages; --damages) {
            PXNode &node = nodes[random() % nodes.size()];
            const unsigned kind = random() % 4;
            if (kind == 0)
                node.left = any(node.length);
            else if (kind == 1)
                node.right = random() % 2 ? node.left : any(node.length);
            else if (kind == 2 && random() % 32 == 0)
                node.length = int16_t(random());
            else
                node.left = node.right = random() % 2 ? any(node.length) : nullptr;
        }
        std::set<const PXNode *> seen;
        const std::string fault = fault_below(nodes.data(), seen);
        EXPECT_EQ(checked(nodes.data(), fault.empty() ? DS_OK : DS_FAILURE),
                  fault.empty() ? ">>>>>> PXCheck: OK\n" : fault);
        ++outcomes[fault.substr(0, 40)];
    }
    EXPECT_EQ(outcomes.size(), 3);
}

// More ways through it than anybody can walk.
TEST(PXCheck, WalksSharedSubtreesOnce) {
    std::vector<PXNode> nodes(1000);
    for (size_t i = 0; i < nodes.size(); ++i) {
        PXNode *const below = i + 1 < nodes.size() ? &nodes[i + 1] : nullptr;
        nodes[i] = {below, below, nullptr, int16_t(i)};
    }
    EXPECT_EQ(checked(nodes.data(), DS_OK), ">>>>>> PXCheck: OK\n");
    nodes.back().right = nodes.data();
    EXPECT_EQ(checked(nodes.data(), DS_FAILURE), path + "5397: >>>>>> FAULT in PX: 999 : 0\n");
}

struct Deep {
    Deep *chain;
    uint16_t length;
};

void *use_deep_table(void *argument) {
    auto *table = static_cast<PXTable *>(argument);
    for (const int order : {0, 1, 2, 3})
        PXVisit(table, order, hooks::destroy);
    PXInfo(table);
    PXCheck(table);
    PXDestroy(table);
    return nullptr;
}

// A prefix of each length. They share the bytes behind them, of one pattern, as keys.
TEST(PXWalks, NeedNoStackForDeepTables) {
    constexpr int count = 32768;
    std::vector<Deep> elements(2 * count + 4096 / sizeof(Deep));
    auto *key = reinterpret_cast<uint8_t *>(&elements[count]);
    for (size_t i = 0; i < sizeof(Deep) * count + 4096; ++i)
        key[i] = uint8_t(0x35 * (i % sizeof(Deep)));
    PXTable *table;
    PXInit(&table, std::malloc, std::free, offsetof(Deep, chain), count * sizeof(Deep),
           offsetof(Deep, length), hooks::destroy);
    List in, post;
    for (int i = count; i-- > 0;) { // so that inserting takes no long descent
        Deep *element = new (&elements[size_t(i)]) Deep{nullptr, uint16_t(i)};
        PXInsert(table, element);
        post.push_back(element);
        // Before all longer ones, if those go on to the right.
        in.insert(bit_of(key, i) ? in.begin() : in.end(), element);
    }
    List expected = in;
    expected.insert(expected.end(), in.rbegin(), in.rend());
    expected.insert(expected.end(), post.rbegin(), post.rend());
    for (int visited_and_destroyed = 0; visited_and_destroyed < 2; ++visited_and_destroyed)
        expected.insert(expected.end(), post.begin(), post.end());
    hooks::start();
    EXPECT_EQ(captured_stdout([=] { on_small_stack(use_deep_table, table); }),
              "===========PX Info=========\n(counting duplicates as one)\n"
              "> number of prefixes : 32768\n> max height         : 255\n" // heights modulo 256
              "> average height     : 127.500000\n> efficiency (%)     : 100.000000 (32768/32768)\n"
              ">>>>>> PXCheck: OK\n");
    EXPECT_TRUE(hooks::destroyed == expected);
    PXDeinit(&table);
}

} // namespace
