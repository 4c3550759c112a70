// The Patricia tree against std::map: keys of a length that the input chooses, with and without a load
// from the key field to the key.
#include "input.h"

#include <array>
#include <k42mc/pt.h>
#include <map>
#include <memory>
#include <vector>

namespace {

using Key = std::array<uint8_t, 6>;

struct Element {
    const void *indirect;
    Key key;
    PTNode node;
};

struct Tree {
    explicit Tree(Input &input) : bits(1 + input.byte() % 48), indirect(input.byte() % 2) {
        REQUIRE(PTInit(&tree, std::malloc, std::free, offsetof(Element, node),
                       indirect ? offsetof(Element, indirect) : offsetof(Element, key), int16_t(bits),
                       indirect, DS_DUMMY) == DS_OK);
    }
    ~Tree() { PTDeinit(&tree); }

    // Few bits set: the all-zero key and the last bit are what is special.
    Key key(Input &input) const {
        Key key{};
        for (int n = input.byte() % 4; n > 0; --n) {
            const int bit = input.byte() % bits;
            key[size_t(bit) / 8] ^= uint8_t(0x80 >> bit % 8);
        }
        return key;
    }

    const void *argument(const Key &key) {
        scratch = &key;
        return indirect ? static_cast<const void *>(&scratch) : &key;
    }

    Element *stored(const Key &key) const {
        const auto at = model.find(key);
        return at == model.end() ? nullptr : at->second.get();
    }

    void insert(const Key &key) {
        auto element = std::make_unique<Element>();
        element->key = key;
        element->indirect = &element->key;
        void *existing = &element;
        PTInsert(tree, element.get(), &existing);
        REQUIRE(existing == stored(key));
        model.try_emplace(key, std::move(element));
    }

    void verify() {
        REQUIRE(PTIsEmpty(tree) == model.empty());
        void *element = PTFirst(tree);
        for (const auto &[key, expected] : model) {
            REQUIRE(element == expected.get() && PTSearch(tree, argument(key)) == element);
            element = PTNext(tree, element);
        }
        REQUIRE(element == nullptr);
        element = PTLast(tree);
        for (auto at = model.rbegin(); at != model.rend(); ++at) {
            REQUIRE(element == at->second.get());
            element = PTPrev(tree, element);
        }
        REQUIRE(element == nullptr);
        for (const int order : {0, 1}) {
            std::vector<void *> found;
            PTVisitWithArg(tree, order, note, &found);
            REQUIRE(found.size() == model.size());
            size_t i = 0;
            for (const auto &entry : model)
                REQUIRE(found[order ? found.size() - ++i : i++] == entry.second.get());
        }
    }

    static int32_t note(void *element, void *found) {
        static_cast<std::vector<void *> *>(found)->push_back(element);
        return 0;
    }

    int bits;
    uint8_t indirect;
    PTTree *tree;
    const void *scratch;
    std::map<Key, std::unique_ptr<Element>> model;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input(data, size);
    Tree run(input);
    while (input.more()) {
        const uint8_t operation = input.byte();
        const Key key = run.key(input);
        Element *present = run.stored(key);
        if (operation < 140) {
            run.insert(key);
        } else if (operation < 190) {
            REQUIRE(PTRemoveByKey(run.tree, run.argument(key)) == present);
            run.model.erase(key);
        } else if (operation < 240 && present) {
            PTRemove(run.tree, present);
            run.model.erase(key);
        } else if (operation == 255) {
            PTDestroy(run.tree);
            run.model.clear();
        }
        const auto above = run.model.upper_bound(key);
        REQUIRE(PTNextByKey(run.tree, run.argument(key)) ==
                (above == run.model.end() ? nullptr : above->second.get()));
        if (operation % 2)
            run.verify();
        else if (void *element = PTFirst(run.tree)) // leave a successor cached for the next operation
            PTNext(run.tree, element);
    }
    return 0;
}
