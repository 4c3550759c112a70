// What unchanged programs call: events around the functions of libc that open and close descriptors.
#include "fdcheck/routes.h"

#include "base/errno_keeper.h"
#include "fdcheck/lock.h"
#include "platform/platform.h"

#include <dirent.h>
#include <fcntl.h>
#include <k42mc/pt.hpp>
#include <stdio.h>
#include <stdlib.h>

namespace k42mc::internal {
namespace {

// A stream or directory, by its address. It stays when that is closed, for as long as the process runs:
// there are as many as were ever open at once.
struct Handle {
    PTNode node;
    const void *address;
    int32_t descriptor;
    bool closed;
};

constinit PTTree *gFDHandles = nullptr; // from the system allocator: no business of the memory checker's

using HandleTree = pt_view<Handle, &Handle::node, &Handle::address>;

PTTree *handles() {
    if (gFDHandles == nullptr)
        PTInit(&gFDHandles, malloc, free, offsetof(Handle, node), offsetof(Handle, address),
               8 * sizeof(void *), 0, nullptr);
    return gFDHandles;
}

// What is known of an address, or null.
Handle *find(const void *address) {
    return gFDHandles != nullptr ? HandleTree(gFDHandles).search(address) : nullptr;
}

// Without memory it stays unknown, and a second close is libc's business.
void remember(const void *address, int32_t descriptor, bool closed) {
    Handle *handle = find(address);
    if (handle == nullptr) {
        if (handles() == nullptr)
            return;
        handle = static_cast<Handle *>(malloc(sizeof *handle));
        if (handle == nullptr)
            return;
        handle->address = address;
        HandleTree(gFDHandles).insert(*handle);
    }
    handle->descriptor = descriptor;
    handle->closed = closed;
    // cppcheck-suppress memleak ; the tree has it
}

bool is_open_descriptor(int32_t descriptor) {
    return fcntl(descriptor, F_GETFD) != -1;
}

// What happened last to a descriptor. Null where nothing did, or where an alarm has frozen the history.
const FDEvent *newest_event(int32_t descriptor) {
    SLList *events = fd_growing_history(descriptor);
    return events != nullptr ? EventList(events).last() : nullptr;
}

void add_close(const char *name, int32_t descriptor) {
    const FDEvent *newest = newest_event(descriptor);
    if (newest != nullptr && newest->type == FD_EV_CLOSE && is_open_descriptor(descriptor))
        fd_add_event("(not routed)", descriptor, FD_EV_OPEN);
    fd_add_event(name, descriptor, FD_EV_CLOSE);
}

void add_open(const char *name, const void *address, int32_t descriptor) {
    fd_add_event(name, descriptor, FD_EV_OPEN);
    remember(address, descriptor, false);
}

// A child of vfork has its parent's histories, but descriptors of its own: it leaves no events.
RecordLock route_lock() {
    return RecordLock(!platform::borrows_memory());
}

// Records the close of a stream or directory. Returns false for the second close of one.
bool closes(const char *name, const void *address, int32_t (*descriptor_of)(const void *),
            bool (*is_open)(const void *)) {
    const ErrnoKeeper errno_keeper;
    const RecordLock lock = route_lock();
    if (!lock)
        return true;
    const Handle *handle = find(address);
    if (handle != nullptr && handle->closed && !is_open(address)) {
        const FDEvent *newest = newest_event(handle->descriptor);
        if (newest != nullptr && newest->type != FD_EV_CLOSE) // in use again: the first close is past
            fd_add_event(name, handle->descriptor, FD_EV_CLOSE);
        fd_add_event(name, handle->descriptor, FD_EV_CLOSE);
        return false;
    }
    const int32_t descriptor = descriptor_of(address);
    add_close(name, descriptor);
    remember(address, descriptor, true);
    return true;
}

int32_t descriptor_of_stream(const void *stream) {
    return fileno(static_cast<FILE *>(const_cast<void *>(stream)));
}

bool is_open_stream(const void *stream) {
    return platform::is_open_stream(static_cast<const FILE *>(stream));
}

int32_t descriptor_of_directory(const void *directory) {
    return dirfd(static_cast<DIR *>(const_cast<void *>(directory)));
}

bool is_open_directory(const void *directory) {
    return platform::is_open_directory(static_cast<const DIR *>(directory));
}

int closed_before() {
    errno = EBADF;
    return -1;
}

} // namespace

bool records_close(const char *name, FILE *stream) {
    return closes(name, stream, descriptor_of_stream, is_open_stream);
}

bool records_close(const char *name, DIR *directory) {
    return closes(name, directory, descriptor_of_directory, is_open_directory);
}

} // namespace k42mc::internal

using namespace k42mc::internal;

int k42mcx_fd_opened(const char *name, int descriptor) {
    if (descriptor >= 0)
        if (const RecordLock lock = route_lock(); lock)
            fd_add_event(name, descriptor, FD_EV_OPEN);
    return descriptor;
}

int k42mcx_fd_opened_pair(const char *name, const int *descriptors, int result) {
    if (result == 0) {
        k42mcx_fd_opened(name, descriptors[0]);
        k42mcx_fd_opened(name, descriptors[1]);
    }
    return result;
}

int k42mcx_fd_closing(const char *name, int descriptor) {
    const ErrnoKeeper errno_keeper;
    if (const RecordLock lock = route_lock(); lock)
        add_close(name, descriptor);
    return descriptor;
}

ptrdiff_t k42mcx_fd_used(const char *name, int descriptor, unsigned type, ptrdiff_t result) {
    if (result >= 0)
        if (const RecordLock lock = route_lock(); lock)
            fd_record_use(name, descriptor, type);
    return result;
}

FILE *k42mcx_fd_opened_stream(const char *name, FILE *stream) {
    const ErrnoKeeper errno_keeper;
    if (stream != nullptr)
        if (const RecordLock lock = route_lock(); lock)
            add_open(name, stream, fileno(stream));
    return stream;
}

FILE *k42mcx_fd_closing_stream(const char *name, FILE *stream) {
    records_close(name, stream);
    return stream;
}

DIR *k42mcx_fd_opened_directory(const char *name, DIR *directory) {
    const ErrnoKeeper errno_keeper;
    if (directory != nullptr)
        if (const RecordLock lock = route_lock(); lock)
            add_open(name, directory, dirfd(directory));
    return directory;
}

int k42mcx_fd_fclose(const char *name, FILE *stream) {
    return records_close(name, stream) ? fclose(stream) : closed_before();
}

int k42mcx_fd_pclose(const char *name, FILE *stream) {
    return records_close(name, stream) ? pclose(stream) : closed_before();
}

int k42mcx_fd_closedir(const char *name, DIR *directory) {
    return records_close(name, directory) ? closedir(directory) : closed_before();
}

K42MC_EXPORT(k42mcx_fd_opened);
K42MC_EXPORT(k42mcx_fd_opened_pair);
K42MC_EXPORT(k42mcx_fd_closing);
K42MC_EXPORT(k42mcx_fd_used);
K42MC_EXPORT(k42mcx_fd_opened_stream);
K42MC_EXPORT(k42mcx_fd_closing_stream);
K42MC_EXPORT(k42mcx_fd_opened_directory);
K42MC_EXPORT(k42mcx_fd_fclose);
K42MC_EXPORT(k42mcx_fd_pclose);
K42MC_EXPORT(k42mcx_fd_closedir);
