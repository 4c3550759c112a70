#pragma once

#include <errno.h>

namespace k42mc::internal {

// Gives errno back the value that it has now, whatever happens in the scope.
class ErrnoKeeper {
public:
    ErrnoKeeper() = default;
    ~ErrnoKeeper() { errno = value_; }
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;

private:
    const int value_ = errno;
};

} // namespace k42mc::internal
