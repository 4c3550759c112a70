// A file that stays open for as long as the process runs, as far as the process lets it.
#pragma once

#include <sys/types.h>

namespace k42mc::internal {

// Programs close descriptors that they do not know, and use the numbers for something of their own: what
// stands behind the number is compared ahead of each use.
class KeptFile {
public:
    // Takes a descriptor of the file over; -1 for none.
    void keep(int descriptor);

    // Returns -1 when it is no longer the file's.
    int descriptor() const { return is_same(descriptor_) ? descriptor_ : -1; }

    // Whether another descriptor is one of the file that was kept.
    bool is_same(int descriptor) const;

    // Closes the file, unless the process did.
    void close();

private:
    int descriptor_ = -1;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

} // namespace k42mc::internal
