// A thread's worth of random allocations, with every block's contents verified before it goes.
#pragma once

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <k42mc/k42mc.h>
#include <random>

class Traffic {
public:
    explicit Traffic(unsigned seed) : random(seed) {}
    ~Traffic() {
        for (Slot &slot : slots)
            release(slot);
    }
    Traffic(const Traffic &) = delete;
    Traffic &operator=(const Traffic &) = delete;

    void step() {
        Slot &slot = slots[random() % slots.size()];
        const size_t size = 1 + random() % 400;
        if (slot.block == nullptr)
            fill(slot, allocate(size), size);
        else if (random() % 3 == 0)
            resize(slot, size);
        else
            release(slot);
    }

private:
    struct Slot {
        void *block = nullptr;
        size_t size = 0;
        int byte = 0;
    };

    void *allocate(size_t size) {
        if (random() % 8 != 0)
            return k42MC_malloc("traffic.cpp", 1, size);
        void *block;
        return k42MC_posix_memalign("traffic.cpp", 2, &block, 64, size) == 0 ? block : nullptr;
    }

    void resize(Slot &slot, size_t size) {
        void *block = k42MC_realloc("traffic.cpp", 3, slot.block, size);
        verify(block, slot.size < size ? slot.size : size, slot.byte);
        fill(slot, block, size);
    }

    void release(Slot &slot) {
        verify(slot.block, slot.size, slot.byte);
        k42MC_free("traffic.cpp", 4, slot.block);
        slot = {};
    }

    void fill(Slot &slot, void *block, size_t size) {
        slot = {block, size, static_cast<unsigned char>(random())};
        memset(block, slot.byte, size);
    }

    static void verify(const void *block, size_t size, int byte) {
        for (size_t i = 0; i < size; ++i) {
            if (static_cast<const unsigned char *>(block)[i] != byte) {
                fputs("contents lost\n", stderr);
                abort();
            }
        }
    }

    std::mt19937 random;
    std::array<Slot, 64> slots{};
};
