#include <k42mc/ht.hpp>

#include "capture.h"
#include "failing_hooks.h"
#include "random.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

struct Element {
    uint16_t front; // so that neither key nor link opens the element
    uint32_t key;
    HTLink link;
};
using Elements = std::vector<Element *>;
using Pairs = std::vector<std::pair<const void *, const void *>>;

Pairs compared; // keys, as the table asks about them

uint64_t hash_of(uint32_t key) {
    return key * 0x9e3779b97f4a7c15; // wider than what the table takes
}
struct Hash {
    uint64_t operator()(const uint32_t &key) const { return hooks::calls += 'H', hash_of(key); }
};
struct Equal {
    bool operator()(const uint32_t &a, const uint32_t &b) const {
        compared.emplace_back(&a, &b);
        return a == b;
    }
};

uint32_t hash_hook(const void *key) {
    return uint32_t(Hash()(*static_cast<const uint32_t *>(key)));
}
int32_t compare_hook(const void *a, const void *b) {
    return Equal()(*static_cast<const uint32_t *>(a), *static_cast<const uint32_t *>(b)) ? 0 : -8;
}

void note_and_wreck(void *element) {
    hooks::destroy(element);
    static_cast<Element *>(element)->link.next = reinterpret_cast<HTLink *>(1);
}

constexpr uint32_t counts[] = {31, 63, 127, 251, 509, 1021, 2039, 4093, 8191, 16381, 32749, 65521};
constexpr uint32_t threshold(size_t row) {
    return row == 11 ? 4294967295 : 8 * counts[row];
}

// A table that C functions and a view use in turn, what each bucket should hold, and which calls of
// hooks each operation should make.
struct Table {
    using View = k42mc::ht_view<Element, &Element::link, &Element::key, Hash, Equal>;

    explicit Table(bool byView) {
        hooks::start();
        const int32_t result =
            byView ? View::create(&table, {hooks::alloc, hooks::dealloc, note_and_wreck})
                   : HTInit(&table, hooks::alloc, hooks::dealloc, offsetof(Element, link),
                            offsetof(Element, key), hash_hook, compare_hook, note_and_wreck);
        EXPECT_EQ(result, DS_OK);
        EXPECT_EQ(hooks::given, (hooks::Blocks{table, table->buckets}));
        view = View(table);
    }
    ~Table() { HTDeinit(&table); }

    // Whether it is linked.
    bool insert(Element *element, bool unique, bool fails = false) {
        start(fails);
        if (row < 11 && count + 1 == threshold(row))
            resize(row + 1, fails);
        else if (row > 1 && count + 1 < threshold(row - 2))
            resize(fitting(), fails);
        Element *const present = unique ? find(element->key) : nullptr;
        void *existing = this;
        if (typed && unique)
            existing = view.insert_unique(*element);
        else if (typed)
            view.insert(*element);
        else
            HTInsert(table, element, unique ? &existing : nullptr);
        EXPECT_EQ(existing, unique ? present : static_cast<void *>(this));
        expect_calls(calls + 'H');
        if (present)
            return false;
        Elements &chain = chain_of(element->key);
        chain.insert(chain.begin(), element);
        return ++count;
    }

    // Whether it was in the table.
    bool remove(Element *element, bool destroy) {
        start();
        if (typed && !destroy)
            view.remove(*element);
        else
            (destroy ? HTRemoveAndDestroy : HTRemove)(table, element);
        const bool found = std::ranges::count(chain_of(element->key), element);
        expect_calls(found && destroy ? "HX" : "H");
        return found && leave(element);
    }

    Element *remove_key(uint32_t key, bool destroy) {
        start();
        Element *const expected = find(key);
        if (destroy)
            EXPECT_EQ(HTRemoveAndDestroyByKey(table, &key), expected ? DS_OK : DS_FAILURE);
        else
            EXPECT_EQ(typed ? view.remove_key(key) : HTRemoveByKey(table, &key), expected);
        expect_calls(expected && destroy ? "HX" : "H");
        return expected && leave(expected) ? expected : nullptr;
    }

    void search(uint32_t key) {
        start();
        Element *const expected = find(key);
        EXPECT_EQ(typed ? view.search(key) : HTSearch(table, &key), expected);
        expect_calls("H");
    }

    // Returns what was in it.
    Elements destroy(bool fails) {
        start(fails);
        Elements gone;
        for (size_t i = chains.size(); i-- > 0; chains[i].clear())
            gone.insert(gone.end(), chains[i].begin(), chains[i].end());
        count = 0;
        if (!gone.empty() && row > 1)
            resize(0, fails);
        typed ? view.clear() : HTDestroy(table);
        expect_calls(std::string(gone.size(), 'X') + calls);
        EXPECT_EQ(hooks::destroyed, hooks::Blocks(gone.begin(), gone.end()));
        return gone;
    }

    void verify() {
        ASSERT_EQ(table->sizeRow->buckets, counts[row]);
        ASSERT_EQ(table->sizeRow->growAt, threshold(row));
        ASSERT_EQ(view.size(), count);
        ASSERT_EQ(HTIsEmpty(table), count == 0);
        ASSERT_EQ(view.empty(), count == 0);
        hooks::Blocks expected, stepped;
        for (size_t i = 0; i < chains.size(); ++i) {
            const HTLink *link = table->buckets[i];
            for (Element *element : chains[i]) {
                ASSERT_EQ(link, &element->link);
                link = link->next;
                expected.push_back(element);
            }
            ASSERT_EQ(link, nullptr);
        }
        auto iterator = view.begin();
        for (void *element = HTFirst(table); element; element = HTNext(table, element)) {
            ASSERT_EQ(&*iterator++, element);
            stepped.push_back(element);
        }
        ASSERT_EQ(iterator, view.end());
        ASSERT_EQ(stepped, expected);
        hooks::start();
        HTVisit(table, hooks::destroy);
        ASSERT_EQ(hooks::destroyed, expected);
        hooks::start();
        view.visit([](Element &element) { hooks::destroy(&element); });
        ASSERT_EQ(hooks::destroyed, expected);
    }

    Elements &chain_of(uint32_t key) { return chains[uint32_t(hash_of(key)) % chains.size()]; }

    // The first with that key, after the comparisons that it takes.
    Element *find(const uint32_t &key) {
        for (Element *element : chain_of(key)) {
            pairs.emplace_back(&key, &element->key);
            if (element->key == key)
                return element;
        }
        return nullptr;
    }

    size_t fitting() const {
        size_t to = 0;
        while (threshold(to) <= count)
            ++to;
        return to;
    }

    bool leave(Element *element) { return --count, std::erase(chain_of(element->key), element); }

    void resize(size_t to, bool fails) {
        calls += 'A';
        if (fails)
            return;
        calls += std::string(count, 'H') + 'F';
        row = to;
        const auto old = std::exchange(chains, std::vector<Elements>(counts[row]));
        for (size_t i = old.size(); i-- > 0;)
            for (Element *element : old[i])
                chain_of(element->key).insert(chain_of(element->key).begin(), element);
    }

    void start(bool fails = false) {
        hooks::start(fails);
        compared.clear(), pairs.clear(), calls.clear();
        array = table->buckets;
    }

    void expect_calls(const std::string &expected) {
        EXPECT_EQ(hooks::calls, expected);
        EXPECT_EQ(compared, pairs);
        const bool resized = !hooks::freed.empty();
        EXPECT_EQ(hooks::freed, resized ? hooks::Blocks{array} : hooks::Blocks{});
        EXPECT_EQ(table->buckets, resized ? hooks::given.back() : array);
    }

    HTTable *table;
    View view{nullptr};
    bool typed = false;
    std::vector<Elements> chains{counts[0]}; // fronts first
    size_t row = 0;
    uint32_t count = 0;
    // Of the operation at hand:
    std::string calls;
    Pairs pairs;
    void *array;
};

TEST(HT, AgreesWithModel) {
    Random random;
    for (const bool byView : {false, true}) {
        std::vector<Element> pool(620);
        Table table(byView);
        Elements unused;
        for (Element &element : pool)
            unused.push_back(&element);
        for (int step = 0; step < 5000 && !HasFailure(); ++step) {
            const size_t operation = random() % 100, growing = step % 2500 < 1700 ? 75 : 10;
            const uint32_t key = random() % 1000;
            const bool either = random() % 2, fails = random() % 3 == 0;
            table.typed = random() % 2;
            Element *element = &pool[random() % pool.size()];
            if (operation < growing && !unused.empty()) {
                unused.back()->key = key;
                if (table.insert(unused.back(), either, fails))
                    unused.pop_back();
            } else if (operation < 85) {
                if (table.remove(element, either))
                    unused.push_back(element);
            } else if (operation < 99) {
                if ((element = table.remove_key(key, either)))
                    unused.push_back(element);
            } else if (random() % 8 == 0) {
                for (Element *gone : table.destroy(fails))
                    unused.push_back(gone);
            }
            table.search(random() % 1000);
            ASSERT_NO_FATAL_FAILURE(table.verify()) << operation;
        }
    }
}

TEST(HT, ChangesItsSize) {
    std::vector<Element> pool(threshold(10));
    Table table(true);
    const auto go_to = [&](uint32_t count) {
        for (; table.count < count; table.typed = !table.typed) {
            pool[table.count].key = table.count;
            table.insert(&pool[table.count], table.count % 3);
        }
        for (; table.count > count; table.typed = !table.typed)
            table.remove(&pool[table.count - 1], false);
        ASSERT_NO_FATAL_FAILURE(table.verify());
    };
    const auto expect = [&](uint32_t count, size_t row) {
        ASSERT_NO_FATAL_FAILURE(go_to(count));
        ASSERT_EQ(table.table->sizeRow->buckets, counts[row]) << count;
    };
    for (size_t row = 0; row < 11; ++row) {
        ASSERT_NO_FATAL_FAILURE(expect(threshold(row) - 1, row));
        ASSERT_NO_FATAL_FAILURE(expect(threshold(row), row + 1));
    }
    Element last{0, 0, {}};
    table.table->count = UINT32_MAX - 1; // as many as can be counted
    hooks::start();
    HTInsert(table.table, &last, nullptr), HTRemove(table.table, &last);
    EXPECT_EQ(hooks::calls, "HH");
    table.table->count = table.count;
    // Only insertions bring it back, below the threshold two rows down, as far as the elements need.
    go_to(threshold(9) - 1), expect(threshold(9), 11);
    go_to(threshold(9) - 2), expect(threshold(9) - 1, 9), expect(threshold(9), 10);
    go_to(247), expect(248, 0), expect(600, 0); // past the threshold it grows no more
    go_to(247), expect(248, 1);
    go_to(1), expect(2, 1), expect(504, 2);
    go_to(0), table.destroy(false), expect(0, 2), expect(1, 0); // nothing there to destroy
}

TEST(HT, DividesExactly) {
    Random random;
    for (const uint32_t buckets : counts)
        for (int i = 0; i < 20000; ++i) {
            const uint32_t most = UINT32_MAX / buckets;
            const uint32_t multiple =
                (i % 2 ? random() % (most + 1) : most - uint32_t(i) % 99) * buckets;
            for (const uint32_t hash : {multiple - 1, multiple, multiple + 1, ~uint32_t(i), random()})
                ASSERT_EQ(k42mc::hash_table::bucket_index(hash, buckets), hash % buckets) << hash;
        }
}

TEST(HTHash, FollowsTheRecurrence) {
    EXPECT_EQ(HTHashNB("abc", 3), 655093106u);
    Random random;
    std::vector<uint8_t> key(524288 + 9);
    std::ranges::generate(key, [&] { return uint8_t(random()); });
    uint32_t hash = 0, length = 0;
    for (const uint8_t byte : key) {
        const bool isTried = length < 99 || length > 524288 - 9;
        ASSERT_EQ(isTried ? HTHashNB(key.data(), length) : hash, hash) << length;
        hash = hash * 65587 + byte;
        ++length;
    }
    const uint8_t field[] = {9, 0x12, 0x34, 0x34, 0x12};
    EXPECT_EQ(HTHash4B(field + 1), 0x12343412u);
}

// Keys of one type, in a table that a view creates and C functions use.
template <class Key> void expect_defaults(const Key &one, const Key &two) {
    struct Item {
        Key key;
        HTLink link;
    } a, b, same;
    std::memcpy(&a.key, &one, sizeof one), std::memcpy(&b.key, &two, sizeof two);
    same = a;
    k42mc::ht_table<Item, &Item::link, &Item::key> table;
    HTTable *const record = table.record();
    const uint32_t hash = sizeof one == 4 ? HTHash4B(&one) : HTHashNB(&one, sizeof one);
    EXPECT_EQ(record->hash(&one), hash);
    table.insert(b);
    HTInsert(record, &a, nullptr);
    EXPECT_EQ(record->buckets[hash % 31], &a.link);
    EXPECT_EQ(table.insert_unique(same), &a);
    EXPECT_EQ(HTSearch(record, &same.key), &a);
    EXPECT_EQ(table.search(two), &b);
}

TEST(HTTable, HashesAndComparesBytesByDefault) {
    expect_defaults<uint32_t>(1, 32); // one bucket
    expect_defaults<uint64_t>(1, uint64_t{1} << 63);
    expect_defaults<uint8_t>(1, 255);
    expect_defaults<char[11]>("elementary", "elementarY");
    expect_defaults<std::array<uint16_t, 2>>({1, 2}, {1, 3});
}

int32_t stop_at_third(void *element, void *result) {
    hooks::destroy(element);
    return hooks::calls.size() == 3 ? *static_cast<int32_t *>(result) : 0;
}

struct Plain {
    HTLink link;
    uint32_t key;
};
using PlainTable = k42mc::ht_table<Plain, &Plain::link, &Plain::key>;

std::string info(const HTTable *table) {
    return captured_stdout([=] { HTInfo(table); });
}

TEST(HTInfo, PrintsExactly) {
    Plain elements[256], *element = elements;
    hooks::start(3); // there is never memory to grow
    PlainTable table({hooks::alloc, hooks::dealloc});
    EXPECT_EQ(info(table.record()), "==========HT Info=========\n>>>>> EMPTY <<<<<\n");
    for (const uint32_t key : {0, 31, 5, 30})
        table.insert(*(element->key = key, element++));
    EXPECT_EQ(info(table.record()), "==========HT Info=========\n"
                                    "> number of entries         = 4\n"
                                    "> maximum comparisons       = 2\n"
                                    "> expected # of comparisons ~ 1.064516\n"
                                    "> load factor               = 0.129032 (4/31)\n"
                                    "> % buckets hit             = 9.677419 (3/31)\n");
    for (; element != std::end(elements); ++element)
        table.insert(*(element->key = 7, element));
    EXPECT_EQ(info(table.record()), "==========HT Info=========\n"
                                    "> number of entries         = 256\n"
                                    "> maximum comparisons       = 252\n"
                                    "> expected # of comparisons ~ 5.129032\n"
                                    "> load factor               = 8.258064 (256/31)\n"
                                    "> % buckets hit             = 12.903226 (4/31)\n");
}

TEST(HTVisitWithArg, EndsAtFirstNonzeroResult) {
    Plain elements[] = {{{}, 3}, {{}, 1}, {{}, 34}, {{}, 2}};
    PlainTable table;
    int32_t seven = 7;
    hooks::start();
    EXPECT_EQ(HTVisitWithArg(table.record(), stop_at_third, &seven), 0);
    for (Plain &element : elements)
        table.insert(element);
    EXPECT_EQ(HTVisitWithArg(table.record(), stop_at_third, &seven), 7);
    EXPECT_EQ(hooks::destroyed, (hooks::Blocks{&elements[1], &elements[3], &elements[2]}));
}

HTTable *handle;

TEST(HTDeinit, ClearsTheHandleFirst) {
    Plain element{{}, 1};
    hooks::start();
    PlainTable table({hooks::alloc, hooks::dealloc, [](void *) { hooks::destroy(handle); }});
    table.insert(element);
    handle = table.release();
    HTDeinit(&handle);
    EXPECT_EQ(hooks::destroyed, hooks::Blocks{nullptr});
    EXPECT_EQ(hooks::freed, hooks::Blocks(hooks::given.rbegin(), hooks::given.rend()));
}

} // namespace
