// The prefix table against a plain list of prefixes.
#include "input.h"

#include <algorithm>
#include <array>
#include <k42mc/px.h>
#include <list>

namespace {

using Key = std::array<uint8_t, 4>;

struct Element {
    void *chain;
    Key key;
    uint16_t length;
};

bool starts_with(const Key &key, const Key &prefix, int length) {
    for (int bit = 0; bit < length; ++bit)
        if ((key[size_t(bit) / 8] ^ prefix[size_t(bit) / 8]) >> (7 - bit % 8) & 1)
            return false;
    return true;
}

struct Table {
    Table() {
        REQUIRE(PXInit(&table, std::malloc, std::free, offsetof(Element, chain), offsetof(Element, key),
                       offsetof(Element, length), DS_DUMMY) == DS_OK);
    }
    ~Table() { PXDeinit(&table); }

    // The newest element of the longest prefix, at most so long, that the key starts with.
    Element *longest(const Key &key, int most) {
        Element *best = nullptr;
        for (Element &element : elements)
            if (element.length <= most && starts_with(key, element.key, element.length) &&
                (!best || element.length > best->length))
                best = &element;
        return best;
    }

    Element *exact(const Key &key, int length) {
        Element *best = longest(key, length);
        return best && best->length == length ? best : nullptr;
    }

    void verify(const Key &key, int length) {
        REQUIRE(PXIsEmpty(table) == elements.empty());
        REQUIRE(PXCheck(table) == DS_OK);
        REQUIRE(PXSearchLMP(table, key.data()) == longest(key, 32));
        REQUIRE(PXSearchLMPForPrefix(table, key.data(), int16_t(length)) == longest(key, length));
        REQUIRE(PXSearch(table, key.data(), int16_t(length)) == exact(key, length));
        size_t reached = 0;
        void *previous = nullptr;
        for (void *first = PXFirst(table); first; first = PXNext(table, first)) {
            REQUIRE(PXPrev(table, first) == previous);
            previous = first;
            for (auto *element = static_cast<Element *>(first); element;
                 element = static_cast<Element *>(element->chain))
                ++reached;
        }
        REQUIRE(reached == elements.size() && PXLast(table) == previous);
    }

    void remove_prefix(const Key &key, int length) {
        Element *first = exact(key, length);
        REQUIRE(PXRemoveByKey(table, key.data(), int16_t(length)) == first);
        elements.remove_if([&](const Element &element) {
            return element.length == length && starts_with(key, element.key, length);
        });
    }

    PXTable *table;
    std::list<Element> elements; // newest first
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input(data, size);
    Table run;
    while (input.more()) {
        const uint8_t operation = input.byte();
        const int length = input.byte() % 33;
        Key key{};
        for (int n = input.byte() % 5; n > 0; --n) {
            const int bit = input.byte() % 32;
            key[size_t(bit) / 8] ^= uint8_t(0x80 >> bit % 8);
        }
        if (operation < 130) {
            run.elements.push_front({nullptr, key, uint16_t(length)});
            REQUIRE(PXInsert(run.table, &run.elements.front()) == DS_OK);
        } else if (operation < 180) {
            run.remove_prefix(key, length);
        } else if (operation < 250 && !run.elements.empty()) {
            const auto victim = std::next(run.elements.begin(), input.byte() % int(run.elements.size()));
            PXRemove(run.table, &*victim);
            run.elements.erase(victim);
        } else if (operation == 255) {
            PXDestroy(run.table);
            run.elements.clear();
        }
        run.verify(key, length);
    }
    return 0;
}
