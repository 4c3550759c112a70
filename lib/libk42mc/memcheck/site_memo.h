// What a thread has found in the table of sites of late, by the marks of traces: they are compared sooner than the
// traces are.
#pragma once

#include "memcheck/site_table.h"
#include "platform/platform.h"

namespace k42mc::internal {

class SiteMemo {
public:
    struct Key {
        const char *file;
        int32_t line;
        uint16_t type;
        platform::TraceMark trace; // that is known

        bool operator==(const Key &) const = default;
    };

    // 0 where it is not known, or may be another one's number by now.
    uint32_t find(const Key &key) const {
        const Entry &entry = entries_[place_of(key)];
        return entry.key == key && entry.sweep == site_sweeps ? entry.site : 0;
    }

    void note(const Key &key, uint32_t site) { entries_[place_of(key)] = {key, site, site_sweeps}; }

private:
    struct Entry {
        Key key;
        uint32_t site;
        uint32_t sweep; // how many there had been
    };
    static constexpr int bits = 9;

    static uint32_t place_of(const Key &key) {
        // Segments of a thread have serial numbers in a row.
        const auto part = [&](int i) { return static_cast<uint32_t>(key.trace.parts[i]); };
        const uint32_t mixed = part(0) * 0x9e3779b1u + part(1) * 0x85ebca6bu + part(2) * 0xc2b2ae35u +
                               static_cast<uint32_t>(key.line);
        return mixed >> (32 - bits);
    }

    Entry entries_[1 << bits] = {};
};

} // namespace k42mc::internal
