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
    explicit Traffic(unsigned seed) : random_(seed) {}
    ~Traffic() {
        for (Slot &slot : slots_)
            release(slot);
    }
    Traffic(const Traffic &) = delete;
    Traffic &operator=(const Traffic &) = delete;

    void step() {
        Slot &slot = slots_[random_() % slots_.size()];
        const size_t size = 1 + random_() % 400;
        if (slot.block == nullptr)
            allocate(slot, size);
        else if (random_() % 3 == 0)
            resize(slot, size);
        else
            release(slot);
    }

private:
    struct Slot {
        unsigned char *block = nullptr;
        size_t size = 0;
        unsigned char fill = 0;
    };

    void fill(Slot &slot, void *block, size_t size) {
        slot = {static_cast<unsigned char *>(block), size, static_cast<unsigned char>(random_())};
        memset(block, slot.fill, size);
    }

    void allocate(Slot &slot, size_t size) {
        void *block = nullptr;
        if (random_() % 8 != 0)
            block = k42MC_malloc("traffic.cpp", 1, size);
        else if (k42MC_posix_memalign("traffic.cpp", 2, &block, 64, size) != 0)
            abort();
        fill(slot, block, size);
    }

    void resize(Slot &slot, size_t size) {
        auto *block = static_cast<unsigned char *>(k42MC_realloc("traffic.cpp", 3, slot.block, size));
        verify(block, slot.size < size ? slot.size : size, slot.fill);
        fill(slot, block, size);
    }

    void release(Slot &slot) {
        if (slot.block == nullptr)
            return;
        verify(slot.block, slot.size, slot.fill);
        k42MC_free("traffic.cpp", 4, slot.block);
        slot.block = nullptr;
    }

    static void verify(const unsigned char *block, size_t size, unsigned char fill) {
        for (size_t i = 0; i < size; ++i) {
            if (block[i] != fill) {
                fputs("contents lost\n", stderr);
                abort();
            }
        }
    }

    std::mt19937 random_;
    std::array<Slot, 64> slots_{};
};
