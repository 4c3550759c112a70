// k42mc run --page-guards --go-on
// Calls that hand the system a buffer that cannot be touched: they fail as ever, and are told as the access that they
// would have been, once for each block. Nothing is told of calls that fail otherwise, or of buffers that are nobody's.
#include "said_by.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <regex>
#include <sys/socket.h>

// What some of them become where the compiler checks buffers.
extern "C" ssize_t __read_chk(int from, void *buffer, size_t size, size_t room);
extern "C" ssize_t __recv_chk(int from, void *buffer, size_t size, size_t room, int flags);
extern "C" size_t __fread_chk(void *buffer, size_t room, size_t size, size_t count, FILE *stream);

namespace {

int failures = 0;

void expect(bool holds, const char *what, const std::string &said = {}) {
    if (holds)
        return;
    printf("not so: %s\n%s", what, said.c_str());
    ++failures;
}

// Compilers see such mistakes coming.
char *unforeseen(void *pointer) {
    __asm__("" : "+r"(pointer));
    return static_cast<char *>(pointer);
}

int file, sockets[2];
FILE *stream;

ssize_t count_of(size_t result) {
    return ferror(stream) != 0 ? -1 : ssize_t(result);
}

struct {
    const char *name;
    bool writes; // the buffer
    ssize_t (*call)(char *buffer, size_t size);
} const calls[] = {
    {"read", true, [](char *buffer, size_t size) { return read(file, buffer, size); }},
    {"pread", true, [](char *buffer, size_t size) { return pread(file, buffer, size, 0); }},
    {"recv", true, [](char *buffer, size_t size) { return recv(sockets[0], buffer, size, 0); }},
    {"recvfrom", true,
     [](char *buffer, size_t size) { return recvfrom(sockets[0], buffer, size, 0, nullptr, nullptr); }},
    {"fread", true, [](char *buffer, size_t size) { return count_of(fread(buffer, 1, size, stream)); }},
    {"fread_unlocked", true,
     [](char *buffer, size_t size) { return count_of(fread_unlocked(buffer, 1, size, stream)); }},
    {"__read_chk", true, [](char *buffer, size_t size) { return __read_chk(file, buffer, size, size); }},
    {"__recv_chk", true,
     [](char *buffer, size_t size) { return __recv_chk(sockets[0], buffer, size, size, 0); }},
    {"__fread_chk", true,
     [](char *buffer, size_t size) { return count_of(__fread_chk(buffer, size, 1, size, stream)); }},
    {"write", false, [](char *buffer, size_t size) { return write(file, buffer, size); }},
    {"pwrite", false, [](char *buffer, size_t size) { return pwrite(file, buffer, size, 0); }},
    {"send", false, [](char *buffer, size_t size) { return send(sockets[0], buffer, size, 0); }},
    {"sendto", false,
     [](char *buffer, size_t size) { return sendto(sockets[0], buffer, size, 0, nullptr, 0); }},
    {"fwrite", false,
     [](char *buffer, size_t size) { return count_of(fwrite(buffer, 1, size, stream)); }},
    {"fwrite_unlocked", false,
     [](char *buffer, size_t size) { return count_of(fwrite_unlocked(buffer, 1, size, stream)); }},
};

constexpr size_t size = 4096; // what a file takes of a buffer that can be touched in part

char *released_block() {
    char *const block = unforeseen(malloc(size));
    char *const released = unforeseen(block);
    free(block);
    return released;
}

void open_all() {
    file = open("handed", O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) != 0 || ftruncate(file, 3 * size) != 0)
        abort();
    char text[2 * size] = {};
    if (write(sockets[1], text, sizeof text) != ssize_t(sizeof text))
        abort();
    stream = fdopen(dup(file), "r+");
    setvbuf(stream, nullptr, _IONBF, 0); // the system gets what the program has
}

bool fails(ssize_t result, int error) {
    return result == -1 && errno == error;
}

bool is_line(const std::string &said, const char *code, size_t offset) {
    const std::regex line("k42mc detected " + std::string(code) +
                          ": alloc\\(STD\\) usrPtr\\(0x[0-9a-f]+\\) " +
                          "usrSize\\(4096\\) access\\(0x[0-9a-f]+\\+" + std::to_string(offset) +
                          "\\) trace buffer:( 0x[0-9a-f]+)+\r\nk42mc: a [^\n]*\n");
    return std::regex_match(said, line);
}

template <class Call> void tells(const Call &call) {
    int status = 0;
    const std::string released = said_by(
        [&] {
            open_all();
            char *const block = released_block();
            errno = 0;
            if (!fails(call.call(block + 8, 1), EFAULT) || !fails(call.call(block + 9, 1), EFAULT))
                _exit(1);
        },
        status);
    expect(status == 0 && is_line(released, call.writes ? "WF" : "RF", 8), call.name, released);
    const std::string behind = said_by(
        [&] {
            open_all();
            char *const block = unforeseen(calloc(1, size));
            errno = EFAULT; // of long ago
            if (call.call(block, size) != ssize_t(size) || errno != EFAULT)
                _exit(1);
            if (!fails(call.call(block + size, 1), EFAULT))
                _exit(2);
        },
        status);
    expect(status == 0 && is_line(behind, call.writes ? "WO" : "RO", size), call.name, behind);
}

// The first byte that cannot be touched; and what could be is not refused.
void names_the_byte() {
    int status = 0;
    const std::string said = said_by(
        [] {
            open_all();
            char *const block = unforeseen(calloc(1, size));
            if (write(file, block, 2 * size) != ssize_t(size))
                _exit(1);
            if (!fails(send(socket(AF_UNIX, SOCK_DGRAM, 0), block, 1, 0), ENOTCONN))
                _exit(2);
            int pair[2];
            if (socketpair(AF_UNIX, SOCK_DGRAM, 0, pair) != 0 ||
                !fails(send(pair[0], block + 100, size, 0), EFAULT))
                _exit(3);
        },
        status);
    expect(status == 0 && is_line(said, "RO", size), "the byte behind the block is named", said);
}

void leaves_others_alone() {
    int status = 0;
    const std::string said = said_by(
        [] {
            open_all();
            char *const block = released_block();
            char *const nowhere = unforeseen(nullptr);
            if (!fails(write(-1, block, 1), EBADF) || !fails(write(file, nowhere, 1), EFAULT) ||
                !fails(read(file, nowhere, 1), EFAULT) || write(file, block, 0) != 0)
                _exit(1);
            char text[3 * size];
            errno = EFAULT;
            if (fread(text, 1, sizeof text, stream) != sizeof text || fread(block, 1, 1, stream) != 0 ||
                feof(stream) == 0)
                _exit(2);
        },
        status);
    expect(status == 0 && said.empty(), "nothing is told of others", said);
}

} // namespace

int main() {
    for (const auto &call : calls)
        tells(call);
    names_the_byte();
    leaves_others_alone();
    return failures;
}
