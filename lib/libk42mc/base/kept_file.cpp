#include "base/kept_file.h"

#include <sys/stat.h>
#include <unistd.h>

namespace k42mc::internal {

void KeptFile::keep(int descriptor) {
    struct stat status;
    descriptor_ = -1;
    if (descriptor < 0 || fstat(descriptor, &status) != 0)
        return;
    descriptor_ = descriptor;
    device_ = status.st_dev;
    inode_ = status.st_ino;
}

bool KeptFile::is_same(int descriptor) const {
    struct stat status;
    return descriptor >= 0 && fstat(descriptor, &status) == 0 && status.st_dev == device_ &&
           status.st_ino == inode_;
}

void KeptFile::close() {
    if (descriptor() >= 0)
        ::close(descriptor_);
    descriptor_ = -1;
}

} // namespace k42mc::internal
