// Which blocks nothing leads to. Threads of their own allocate, so that no pointer is left on the stack of the test, and
// what has to keep one keeps it inverted.
#include "checker.h"

#include "pointer_graph.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <functional>
#include <pthread.h>
#include <regex>
#include <semaphore.h>
#include <set>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <thread>
#include <ucontext.h>
#include <unistd.h>
#include <vector>

#if defined(__x86_64__)
#define MOVE "movq"
#else
#define MOVE "movd"
#endif

namespace {

using Lost = WithChecker;

uintptr_t hidden(const void *pointer) {
    return ~reinterpret_cast<uintptr_t>(pointer);
}

void *shown(uintptr_t inverted) {
    return reinterpret_cast<void *>(~inverted);
}

void aside(const std::function<void()> &work) {
    std::thread(work).join();
}

// What former calls have left below the stack pointer and in registers.
[[gnu::noinline]] void wipe() {
    volatile char below[1 << 16];
    for (volatile char &byte : below)
        byte = 0;
    __asm__ volatile("" : : : "memory", "ebx", "esi", "edi");
}

// The lines of a search without the traces.
std::string lost_lines(uint32_t limit = 0) {
    std::string lines;
    size_t count = 0;
    wipe();
    const std::string text = captured_stderr([&] { count = k42mcx_lost(limit); });
    size_t listed = 0;
    for (size_t at = 0; at < text.size();) {
        const std::string line = line_at(text, at);
        at += line.size() + 1;
        if (contains(line, ":LB:") || contains(line, ":LI:")) {
            lines += line.substr(0, line.find(":STD")) + "\n";
            ++listed;
        }
    }
    EXPECT_EQ(count, listed);
    EXPECT_FALSE(contains(text, "ERROR")) << text;
    return lines;
}

// Shows the address to the callee alone.
[[gnu::naked]] int ask([[maybe_unused]] uintptr_t inverted,
                       [[maybe_unused]] int (*callee)(const void *)) {
#if defined(__x86_64__)
    __asm__("not %rdi\n\tjmp *%rsi");
#else
    __asm__("notl 4(%esp)\n\tjmp *8(%esp)");
#endif
}

std::string why(uintptr_t inverted, int expected) {
    wipe();
    return captured_stderr([&] { aside([&] { EXPECT_EQ(ask(inverted, k42mcx_why), expected); }); });
}

// ---- Roots, each of which is all that leads to a block ----

void *volatile in_data; // nobody reads them but a search
thread_local void *volatile in_thread_local;
pthread_key_t last_key;
constexpr size_t page_bytes = 1 << 16;
void **in_page;
void **in_foreign_block;
void **in_held_block;
volatile unsigned let_go; // what keeps a register waits for this
sem_t held;

// Each of these three stays until it is let go.
void in_register(uintptr_t inverted) {
    sem_post(&held);
    __asm__ volatile("not %0\n1: pause\n\tcmpl $0, %1\n\tje 1b\n\txor %0, %0"
                     : "+r"(inverted)
                     : "m"(let_go)
                     : "memory");
}

void in_vector(uintptr_t inverted) {
    sem_post(&held);
    __asm__ volatile("not %0\n\t" MOVE " %0, %%xmm3\n\txor %0, %0\n"
                     "1: pause\n\tcmpl $0, %1\n\tje 1b\n\tpxor %%xmm3, %%xmm3"
                     : "+r"(inverted)
                     : "m"(let_go)
                     : "memory");
}

// While the thread waits for a pipe that nobody writes to before.
int waiting_pipe[2];
void in_register_of_waiting(uintptr_t inverted) {
    char byte;
    sem_post(&held);
#if defined(__x86_64__)
    register uintptr_t kept __asm__("r12") = inverted;
    long result;
    __asm__ volatile("not %1\n\tsyscall\n\txor %1, %1"
                     : "=a"(result), "+r"(kept)
                     : "0"(0L), "D"(waiting_pipe[0]), "S"(&byte), "d"(1L)
                     : "rcx", "r11", "memory");
#else
    long result;
    __asm__ volatile("not %1\n\tint $0x80\n\txor %1, %1"
                     : "=a"(result), "+D"(inverted)
                     : "0"(3L), "b"(waiting_pipe[0]), "c"(&byte), "d"(1L)
                     : "memory");
#endif
    EXPECT_EQ(result, 1);
}

// In what was the stack of a thread, which the library may still know.
void on_former_stack(uintptr_t inverted) {
    pthread_attr_t attributes;
    pthread_t thread;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, in_page, page_bytes);
    const auto visit = [](void *) -> void * {
        k42MC_free("visit.c", 1, k42MC_malloc("visit.c", 1, 1));
        return nullptr;
    };
    EXPECT_EQ(pthread_create(&thread, &attributes, visit, nullptr), 0);
    pthread_join(thread, nullptr);
    in_page[100] = shown(inverted);
}

// While a handler runs on a part of the thread's own stack, above.
[[gnu::noinline]] void below_handler(uintptr_t inverted) {
    [[maybe_unused]] void *volatile local = shown(inverted);
    raise(SIGUSR1);
    local = nullptr;
}
void on_stack_of_handler(uintptr_t inverted) {
    char memory[1 << 16];
    const stack_t stack = {memory, 0, sizeof memory}, none = {nullptr, SS_DISABLE, 0};
    struct sigaction action = {}, former;
    action.sa_flags = SA_ONSTACK;
    action.sa_handler = [](int) {
        for (sem_post(&held); !let_go;)
            usleep(1000);
    };
    sigaltstack(&stack, nullptr);
    sigaction(SIGUSR1, &action, &former);
    below_handler(inverted);
    sigaction(SIGUSR1, &former, nullptr);
    sigaltstack(&none, nullptr);
}

[[gnu::noinline]] void on_stack_in_use(uintptr_t inverted) {
    [[maybe_unused]] void *volatile local = shown(inverted);
    wipe();
    for (sem_post(&held); !let_go;)
        usleep(1000);
    local = nullptr;
}

ucontext_t coroutine, outside;
uintptr_t for_coroutine;
void run_coroutine() {
    [[maybe_unused]] void *volatile local = shown(for_coroutine);
    swapcontext(&coroutine, &outside);
    local = nullptr;
    swapcontext(&coroutine, &outside);
}

// What the system keeps.
int epoll, watched[500]; // more than are read at a time
constexpr int high_half = sizeof(void *) == 4 ? 32 : 0;
timer_t timer;

// What k42mcx_why should say of each.
constexpr const char *by_data = "variable `[^`]*in_data[^`]*` in lost_test\\+0x[0-9a-f]+",
                     *by_memory = "memory at 0x[0-9A-F]+ in a mapping of [0-9]+ KiB",
                     *by_register = "[a-z0-9]+ of thread [0-9]+",
                     *by_system = "an epoll instance's data or a timer's value";

struct Root {
    const char *name, *why;
    std::function<void(uintptr_t inverted)> hold;
    std::function<void()> drop;
    bool waits = false; // inside of hold
};

const Root roots[] = {
    {"data", by_data, [](uintptr_t p) { in_data = shown(p); }, [] { in_data = nullptr; }},
    {"inside", by_data, [](uintptr_t p) { in_data = static_cast<char *>(shown(p)) + 99; },
     [] { in_data = static_cast<char *>(in_data) + 5; }}, // behind it, and so without its tags
    {"low tags", by_data, [](uintptr_t p) { in_data = static_cast<char *>(shown(p)) + 7; },
     [] { in_data = nullptr; }},
#if defined(__x86_64__)
    {"high tags", by_data,
     [](uintptr_t p) { in_data = reinterpret_cast<void *>(~p | uintptr_t{0xbeef} << 48); },
     [] { in_data = nullptr; }},
#endif
    {"thread-local", "thread-local `[^`]*in_thread_local[^`]*` of thread [0-9]+",
     [](uintptr_t p) { in_thread_local = shown(p); }, [] { in_thread_local = nullptr; }},
    {"thread-specific", by_memory, [](uintptr_t p) { pthread_setspecific(last_key, shown(p)); },
     [] { pthread_setspecific(last_key, nullptr); }},
    {"page", by_memory, [](uintptr_t p) { in_page[100] = shown(p); }, [] { in_page[100] = nullptr; }},
    {"read-only page", by_memory,
     [](uintptr_t p) {
         in_page[100] = shown(p);
         mprotect(in_page, 4096, PROT_READ);
     },
     [] {
         mprotect(in_page, 4096, PROT_READ | PROT_WRITE);
         in_page[100] = nullptr;
     }},
    {"former stack", by_memory, on_former_stack, [] { in_page[100] = nullptr; }},
    {"foreign block", by_memory,
     [](uintptr_t p) {
         in_foreign_block = static_cast<void **>(malloc(100));
         in_foreign_block[3] = shown(p);
     },
     [] {
         free(in_foreign_block);
         in_foreign_block = nullptr;
     }},
    {"held block", "variable `[^`]*in_held_block[^`]*` in .*",
     [](uintptr_t p) {
         in_held_block = static_cast<void **>(k42MC_malloc("held.c", 1, 5000));
         in_held_block[600] = shown(p);
     },
     [] {
         k42MC_free("held.c", 2, in_held_block);
         in_held_block = nullptr;
     }},
    {"large held block", "variable `[^`]*in_held_block[^`]*` in .*",
     [](uintptr_t p) {
         in_held_block = static_cast<void **>(k42MC_malloc("held.c", 1, 1'000'000));
         in_held_block[100'000] = shown(p);
     },
     [] { in_held_block[100'000] = nullptr; }},
    {"coroutine", by_memory,
     [](uintptr_t p) {
         for_coroutine = p;
         getcontext(&coroutine);
         coroutine.uc_stack.ss_sp = in_page;
         coroutine.uc_stack.ss_size = page_bytes;
         makecontext(&coroutine, run_coroutine, 0);
         swapcontext(&outside, &coroutine);
     },
     [] { swapcontext(&outside, &coroutine); }},
    {"epoll", by_system,
     [](uintptr_t p) {
         epoll = epoll_create1(0);
         for (int &descriptor : watched) {
             const bool is_one = &descriptor == &watched[std::size(watched) / 2];
             epoll_event event = {EPOLLIN, {}};
             event.data.u64 = is_one ? uint64_t{number(shown(p))} << high_half : UINT64_MAX;
             epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor = dup(waiting_pipe[0]), &event);
             event = {};
         }
     },
     [] {
         for (const int descriptor : watched) {
             epoll_ctl(epoll, EPOLL_CTL_DEL, descriptor, nullptr);
             close(descriptor);
         }
         close(epoll);
     }},
    {"timer", by_system,
     [](uintptr_t p) {
         sigevent event = {};
         event.sigev_notify = SIGEV_SIGNAL;
         event.sigev_signo = SIGUSR2;
         event.sigev_value.sival_ptr = shown(p);
         EXPECT_EQ(timer_create(CLOCK_MONOTONIC, &event, &timer), 0);
         event = {};
     },
     [] { timer_delete(timer); }},
    {"stack on which a handler's stack lies", "stack of thread [0-9]+.*", on_stack_of_handler, [] {},
     true},
    {"stack", "stack of thread [0-9]+, frame `[^`]*on_stack_in_use[^`]*`", on_stack_in_use, [] {}, true},
    {"register", by_register, in_register, [] {}, true},
    {"vector register", "vector register of thread [0-9]+", in_vector, [] {}, true},
    {"register of a thread that waits", by_register, in_register_of_waiting, [] {}, true},
};

// One thread holds, and drops when it is let go; then it stays until the search is over.
class Holder {
public:
    Holder(const Root &root, uintptr_t inverted) {
        sem_init(&held, 0, 0);
        sem_init(&go_on_, 0, 0);
        let_go = 0;
        EXPECT_EQ(pipe(waiting_pipe), 0);
        thread_ = std::thread([this, &root, inverted] {
            root.hold(inverted);
            wipe();
            if (!root.waits) {
                sem_post(&held);
                sem_wait(&go_on_);
            }
            root.drop();
            wipe();
            sem_post(&held);
            sem_wait(&go_on_);
        });
        sem_wait(&held);
        usleep(20'000); // into the call
    }
    ~Holder() {
        sem_post(&go_on_);
        thread_.join();
        close(waiting_pipe[0]);
        close(waiting_pipe[1]);
    }
    void drop() {
        let_go = 1;
        EXPECT_EQ(write(waiting_pipe[1], "x", 1), 1);
        sem_post(&go_on_);
        sem_wait(&held);
    }

private:
    sem_t go_on_;
    std::thread thread_;
};

TEST_F(Lost, IsWhatNoRootLeadsTo) {
    pthread_key_t key;
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(pthread_key_create(i < 39 ? &key : &last_key, nullptr), 0);
    in_page = static_cast<void **>(
        mmap(nullptr, page_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    for (const Root &root : roots) {
        SCOPED_TRACE(root.name);
        uintptr_t block;
        aside([&] { block = hidden(k42MC_malloc("root.c", 1, 100)); });
        {
            Holder holder(root, block);
            EXPECT_EQ(lost_lines(), "");
            EXPECT_TRUE(std::regex_search(why(block, 0),
                                          std::regex(std::string("^") + root.why + " leads to\n")))
                << why(block, 0);
            holder.drop();
            EXPECT_EQ(lost_lines(), "root.c:1:LB\n");
            EXPECT_TRUE(contains(why(block, 1), "Nothing that is held leads to\nroot.c:1:LB:STD:"));
        }
        aside([&] {
            k42MC_free("root.c", 2, shown(block));
            k42MC_free("held.c", 3, in_held_block);
        });
        in_data = nullptr;
        in_held_block = nullptr;
    }
    checker_off();
    EXPECT_EQ(captured_stderr([] { EXPECT_EQ(k42mcx_lost(0), 0u); }),
              "k42mcx_lost: ERROR: MC not currently initialized\n");
}

// What is left of pointers where blocks and stacks were.
TEST_F(Lost, DoesNotTakeMemoryThatWasReleasedForARoot) {
    aside([] {
        void *volatile local = k42MC_malloc("stale.c", 1, 10);
        for (const size_t size : {200, 2000, 20'000}) {
            auto *holder = static_cast<void **>(k42MC_malloc("holder.c", 1, size));
            auto *foreign = static_cast<void **>(malloc(size));
            void *volatile behind = malloc(10); // neither becomes one with the rest of the heap
            for (size_t i = 0; i < size / sizeof(void *); ++i)
                holder[i] = foreign[i] = local;
            k42MC_free("holder.c", 2, holder);
            free(foreign);
            (void)behind;
        }
    });
    EXPECT_EQ(lost_lines(), "stale.c:1:LB\n");
}

TEST_F(Lost, ListsWhatHasSurvivedEnoughReportsAsTextOfAReport) {
    std::string line;
    aside([&] {
        line = "old.c:7:LB:STD:" + address(k42MC_malloc("old.c", 7, 33)) +
               ":33:1\nBacktrace of the allocation:\n";
    });
    report(5);
    wipe();
    aside([] { (void)*static_cast<void *volatile *>(k42MC_malloc("young.c", 1, 33)); });
    const std::string text = captured_stderr([] { EXPECT_EQ(k42mcx_lost(1), 1u); });
    EXPECT_STARTS(text, line);
    EXPECT_ENDS(text, "\n------\n");
    EXPECT_EQ(lost_lines(2), "");
    EXPECT_EQ(lost_lines(0), "old.c:7:LB\nyoung.c:1:LB\n");
    EXPECT_CONTAINS(report(0), "<cycle 2>");
}

// ---- What the program says ----

constexpr const char *lost_root = "root.c:1:LB\n";

uintptr_t new_block(const char *file = "root.c", int line = 1, size_t size = 100) {
    uintptr_t block;
    aside([&] { block = hidden(k42MC_malloc(file, line, size)); });
    return block;
}

void release(uintptr_t block) {
    aside([&] { k42MC_free("root.c", 2, shown(block)); });
}

TEST_F(Lost, IsNothingThatTheProgramKeeps) {
    uintptr_t keeper = new_block("keeper.c");
    const uintptr_t kept = new_block();
    int local = 0;
    aside([&] {
        *static_cast<void **>(shown(keeper)) = shown(kept);
        EXPECT_EQ(k42mcx_keep(static_cast<char *>(shown(keeper)) + 99), 1);
        EXPECT_EQ(k42mcx_keep(static_cast<char *>(shown(keeper)) + 100), 0);
        EXPECT_EQ(k42mcx_keep(&local) + k42mcx_keep(nullptr) + k42mcx_keep(reinterpret_cast<void *>(-1)),
                  0);
    });
    EXPECT_EQ(lost_lines(), "");
    for (const size_t size : {5'000u, 1'000'000u, 100u})
        aside([&] { keeper = hidden(k42MC_realloc("keeper.c", 3, shown(keeper), size)); });
    EXPECT_EQ(lost_lines(), "");
    release(keeper);
    EXPECT_EQ(lost_lines(), lost_root);
    checker_off();
    EXPECT_EQ(captured_stderr([&] { EXPECT_EQ(k42mcx_keep(shown(kept)), 0); }), "");
    checker_on();
    release(kept);
}

// A process may record blocks in a block.
TEST_F(Lost, IsKeptWithWhatItLiesIn) {
    const uintptr_t pool = new_block("pool.c", 1, 1000);
    const auto record = [&](int line, size_t at, size_t size) {
        aside([&] { MCAlloc("pool.c", line, MC_STD, ~pool + at, size); });
    };
    const auto keep = [&](size_t at) {
        aside([&] { EXPECT_EQ(k42mcx_keep(reinterpret_cast<void *>(~pool + at)), 1); });
    };
    record(2, 200, 100);
    record(3, 500, 0);
    EXPECT_EQ(lost_lines(), "pool.c:1:LB\npool.c:2:LB\npool.c:3:LB\n");
    keep(500);
    EXPECT_EQ(lost_lines(), "pool.c:2:LB\n");
    keep(501);
    EXPECT_EQ(lost_lines(), "pool.c:2:LB\n");
    keep(299);
    EXPECT_EQ(lost_lines(), "");
    release(pool);
}

TEST_F(Lost, IsNothingOfAThreadThatAsksForThat) {
    std::vector<uintptr_t> blocks;
    aside([&] {
        const auto allocate = [&](int line) {
            blocks.push_back(hidden(k42MC_malloc("thread.c", line, 10)));
        };
        k42mcx_unlisted(0);
        k42mcx_unlisted(1);
        k42mcx_unlisted(2);
        k42mcx_unlisted(0);
        allocate(1);
        std::thread([&] { allocate(2), wipe(); }).join(); // its stack stays, and is used less deeply
        k42mcx_unlisted(0);
        allocate(3);
        aside([&] { blocks.push_back(new_block("thread.c", 4)); });
    });
    EXPECT_EQ(lost_lines(), "thread.c:2:LB\nthread.c:3:LB\nthread.c:4:LB\n");
    for (const uintptr_t block : blocks)
        release(block);
}

// Memory that only its being named makes a root.
struct Region {
    const char *lost, *lost_once_named;             // as searches list it
    std::function<void *(uintptr_t inverted)> make; // leads to a block from its 11th word
};

const Region regions[] = {
    {"lost.c:1:LB\nroot.c:1:LI\n", "lost.c:1:LB\n",
     [](uintptr_t p) {
         auto **block = static_cast<void **>(k42MC_malloc("lost.c", 1, 800));
         block[10] = shown(p);
         return static_cast<void *>(block);
     }},
    {lost_root, "", // read-only memory of several processes
     [](uintptr_t p) {
         const int file = memfd_create("region", 0);
         void *const pointer = shown(p);
         EXPECT_EQ(pwrite(file, &pointer, sizeof pointer, 10 * sizeof pointer), ssize_t{sizeof pointer});
         void *const memory =
             mmap(nullptr, page_bytes, PROT_READ, MAP_SHARED, file, 0); // longer than the file
         close(file);
         return memory;
     }},
};

TEST_F(Lost, IsNothingThatANamedRegionLeadsTo) {
    for (const Region &region : regions) {
        SCOPED_TRACE(region.lost);
        const uintptr_t block = new_block();
        uintptr_t memory;
        aside([&] { memory = hidden(region.make(block)); });
        const size_t size = 800;
        const auto call = [&](int (*function)(const void *, size_t), size_t bytes) {
            int result;
            aside([&] { result = function(shown(memory), bytes); });
            return result;
        };
        EXPECT_EQ(lost_lines(), region.lost);
        EXPECT_EQ(call(k42mcx_root, 11 * sizeof(void *) - 1), 0);
        EXPECT_EQ(lost_lines(), region.lost);
        EXPECT_EQ(call(k42mcx_root, size), 0);
        EXPECT_EQ(call(k42mcx_root, size), 0);
        EXPECT_EQ(call(k42mcx_unroot, size), 0);
        EXPECT_EQ(call(k42mcx_unroot, size - 1), EINVAL);
        EXPECT_EQ(lost_lines(), region.lost_once_named);
        EXPECT_EQ(call(k42mcx_unroot, size), 0);
        EXPECT_EQ(call(k42mcx_unroot, size), EINVAL);
        EXPECT_EQ(lost_lines(), region.lost);
        EXPECT_EQ(call(k42mcx_unroot, 11 * sizeof(void *) - 1), 0);
        checker_off();
        checker_on();
    }
}

// What is named may be gone by the time of a search, or be all the memory that there is.
TEST_F(Lost, SurvivesRegionsThatCannotBeRead) {
    char *const memory = static_cast<char *>(
        mmap(nullptr, 4 * page_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(memory, MAP_FAILED);
    EXPECT_EQ(k42mcx_root(memory, 4 * page_bytes), 0);
    EXPECT_EQ(k42mcx_root(nullptr, SIZE_MAX), 0);
    EXPECT_EQ(k42mcx_root(nullptr, 0), 0);
    EXPECT_EQ(k42mcx_root(memory, SIZE_MAX), EINVAL);
    const uintptr_t block = new_block();
    reinterpret_cast<void **>(memory + 3 * page_bytes)[1] = shown(block);
    mprotect(memory, page_bytes, PROT_NONE);
    munmap(memory + page_bytes, page_bytes);
    EXPECT_EQ(lost_lines(), "");
    munmap(memory, 4 * page_bytes);
    EXPECT_EQ(k42mcx_unroot(nullptr, SIZE_MAX), 0);
    EXPECT_EQ(lost_lines(), lost_root);
    EXPECT_EQ(k42mcx_unroot(memory, 4 * page_bytes), 0);
    EXPECT_EQ(k42mcx_unroot(nullptr, 0), 0);
    release(block);
}

TEST_F(Lost, AgreesWithAModelOnManyRegions) {
    constexpr size_t cells = 20, regions_at_most = 1000;
    Random random;
    std::vector<uintptr_t> blocks;
    for (size_t cell = 0; cell < cells; ++cell)
        blocks.push_back(new_block("cell.c", int(cell)));
    uintptr_t holder = new_block("holder.c");
    aside([&] {
        holder = hidden(k42MC_realloc("holder.c", 1, shown(holder), cells * sizeof(void *)));
        for (size_t cell = 0; cell < cells; ++cell)
            static_cast<void **>(shown(holder))[cell] = shown(blocks[cell]);
    });
    const auto place = [&](size_t cell) { return static_cast<void **>(shown(holder)) + cell; };
    std::vector<std::pair<size_t, size_t>> model;
    for (const size_t wanted : {3u, 1u, 40u, 2u, 600u, 4u, 0u}) {
        aside([&] {
            while (model.size() != wanted && model.size() < regions_at_most) {
                const size_t cell = random() % cells, bytes = random() % 3 * sizeof(void *);
                const bool adds = model.size() < wanted;
                const auto known = std::find(model.begin(), model.end(), std::pair(cell, bytes));
                const int expected = adds || known != model.end() ? 0 : EINVAL;
                EXPECT_EQ((adds ? k42mcx_root : k42mcx_unroot)(place(cell), bytes), expected);
                if (adds)
                    model.emplace_back(cell, bytes);
                else if (known != model.end())
                    model.erase(known);
            }
        });
        std::string expected = "holder.c:1:LB\n";
        for (size_t cell = 0; cell < cells; ++cell)
            if (std::none_of(model.begin(), model.end(), [&](const auto &region) {
                    return cell >= region.first && cell < region.first + region.second / sizeof(void *);
                }))
                expected += "cell.c:" + std::to_string(cell) + ":LI\n";
        EXPECT_EQ(lost_lines(), expected) << wanted;
    }
    for (const uintptr_t block : blocks)
        release(block);
    release(holder);
}

// ---- Why a block is held ----

// The first line, once the address has been asked for by a function that has it on the stack.
[[gnu::noinline]] std::string first_reason(uintptr_t inverted) {
    [[maybe_unused]] void *volatile local = shown(inverted);
    const std::string text = captured_stderr([&] { EXPECT_EQ(k42mcx_why(local), 0); });
    local = nullptr;
    return text.substr(0, text.find('\n'));
}

TEST_F(Lost, IsNotForWhatTheAskingThreadHasIfAnythingElseLeadsThere) {
    const uintptr_t block = new_block("asked.c", 1, 100);
    const std::string of_thread = first_reason(block);
    EXPECT_TRUE(contains(of_thread, "of this thread")) << of_thread;
    aside([&] { in_data = shown(block); });
    EXPECT_TRUE(contains(first_reason(block), "in_data"));
    aside([] { in_data = nullptr; });
    aside([&] { k42mcx_keep(shown(block)); });
    EXPECT_EQ(first_reason(block), "the program's request to keep it leads to");
    release(block);
    EXPECT_TRUE(contains(why(block, -1), "k42mcx_why: ERROR: no recorded block is there\n"));
}

// ---- Graphs ----

constexpr int nodes = PointerGraph::nodes;

using Edges = std::vector<std::set<int>>;

void take_closure(Edges &edges) {
    for (size_t via = 0; via < edges.size(); ++via)
        for (auto &from : edges)
            if (from.contains(int(via)))
                from.insert(edges[via].begin(), edges[via].end());
}

// What a search should say, by the edges of the closure.
std::string expected_lines(const Edges &leads_to, const std::set<int> &held) {
    const auto leads = [&](int from, int to) {
        return from == to || leads_to[size_t(from)].contains(to);
    };
    std::string lines;
    for (int node = 0; node < nodes; ++node) {
        bool is_leader = !held.contains(node);
        for (int other = 0; other < nodes; ++other) // the oldest of those that lead to each other
            if (other != node && leads(other, node) && !held.contains(other) &&
                (!leads(node, other) || other < node))
                is_leader = false;
        if (is_leader)
            lines += "node.c:" + std::to_string(node) + ":LB\n";
    }
    return lines;
}

// The blocks of a graph with three roots, inverted.
class GraphOfBlocks {
public:
    explicit GraphOfBlocks(Random &random) : graph(random) {
        aside([&] {
            for (int node = 0; node < nodes; ++node)
                blocks[size_t(node)] =
                    hidden(k42MC_calloc("node.c", node, PointerGraph::slots, sizeof(void *)));
            for (size_t node = 0; node < nodes; ++node)
                for (size_t slot = 0; slot < graph.edges[node].size(); ++slot)
                    static_cast<char **>(shown(blocks[node]))[slot] =
                        static_cast<char *>(shown(blocks[graph.edges[node][slot]])) +
                        random() % (PointerGraph::slots * sizeof(void *));
            for (size_t i = 0; i < std::size(roots); ++i) {
                roots[i] = random() % nodes;
                graph_roots[i] = shown(blocks[roots[i]]);
            }
        });
    }

    ~GraphOfBlocks() {
        aside([&] {
            for (const uintptr_t block : blocks)
                k42MC_free("node.c", 0, shown(block));
            std::ranges::fill(graph_roots, nullptr);
        });
    }

    const PointerGraph graph;
    // Not in memory that blocks of former graphs may have been in.
    uintptr_t blocks[nodes];
    size_t roots[3];

private:
    static inline void *graph_roots[3];
};

TEST_F(Lost, AgreesWithAModelOnRandomGraphs) {
    Random random;
    for (int round = 0; round < 20; ++round) {
        const GraphOfBlocks graph(random);
        Edges edges(nodes);
        for (size_t node = 0; node < nodes; ++node)
            edges[node] = std::set<int>(graph.graph.edges[node].begin(), graph.graph.edges[node].end());
        take_closure(edges);
        std::set<int> held(std::begin(graph.roots), std::end(graph.roots));
        for (const size_t root : graph.roots)
            held.insert(edges[root].begin(), edges[root].end());
        std::string lines = lost_lines(), leaders;
        std::set<std::string> all;
        for (size_t at = 0; at < lines.size();) {
            const std::string line = line_at(lines, at);
            at += line.size() + 1;
            if (contains(line, ":LB"))
                leaders += line + "\n";
            all.insert(line.substr(0, line.rfind(':')));
        }
        EXPECT_EQ(leaders, expected_lines(edges, held));
        EXPECT_EQ(all.size() + held.size(), size_t(nodes));
    }
}

// Something else than the roots may still have an address that was there before; but along a chain, pointers lead on.
TEST_F(Lost, IsNotForTheShortestChainOfPointers) {
    Random random;
    const std::regex link("node\\.c:([0-9]+):HB:[^\n]*\n(?:  from its byte ([0-9]+) on: leads to\n)?");
    for (int round = 0; round < 5; ++round) {
        const GraphOfBlocks graph(random);
        const std::vector<int> distances[] = {graph.graph.distances(graph.roots[0]),
                                              graph.graph.distances(graph.roots[1]),
                                              graph.graph.distances(graph.roots[2])};
        for (size_t node = 0; node < nodes; ++node) {
            const int nearest = std::min({distances[0][node], distances[1][node], distances[2][node]});
            if (nearest == INT_MAX)
                continue;
            const std::string text = why(graph.blocks[node], 0);
            std::vector<std::pair<size_t, size_t>> chain;
            for (std::sregex_iterator at(text.begin(), text.end(), link), end; at != end; ++at)
                chain.emplace_back(std::stoul(at->str(1)),
                                   std::strtoul(at->str(2).c_str(), nullptr, 10));
            ASSERT_FALSE(chain.empty()) << text;
            EXPECT_EQ(chain.back().first, node);
            for (size_t i = 0; i + 1 < chain.size(); ++i)
                EXPECT_TRUE(graph.graph.has(chain[i].first, chain[i].second, chain[i + 1].first))
                    << text;
            EXPECT_LE(int(chain.size()), nearest + 1) << text;
            const bool is_roots = contains(line_at(text, 0), "graph_roots");
            EXPECT_GE(int(chain.size()), is_roots ? nearest + 1 : 1) << text;
        }
    }
}

// On 32 bits, numbers that the checker keeps of sites look like addresses; a few that others keep may, too.
TEST_F(Lost, IsNotHeldByWhatTheCheckerKnowsOfSites) {
    constexpr int sites = 40'000;
    checker_off();
    checker_on(MC_TYPE_BT_OFF);
    aside([] {
        for (int i = 0; i < sites; ++i)
            k42MC_malloc("site.c", i, 1000);
    });
    size_t count = 0;
    captured_stderr([&] { count = k42mcx_lost(0); });
    EXPECT_GT(count, size_t{sites - 40});
}

// Deeper than any stack. Among so many addresses of 32 bits, some number in memory that is none may be one.
TEST_F(Lost, FollowsMoreLinksThanAStackHasRoomFor) {
    static void **first;
    checker_off();
    checker_on(MC_TYPE_BT_OFF);
    aside([] {
        for (int i = 0; i < 200'000; ++i) {
            auto **link = static_cast<void **>(k42MC_malloc("link.c", i == 199'999, sizeof(void *)));
            *link = first;
            first = link;
        }
    });
    EXPECT_EQ(lost_lines(), "");
    aside([] { first = nullptr; });
    report(0x7fffffff);
    EXPECT_EQ(k42mcx_lost(2), 0u);
    size_t count = 0;
    wipe();
    const std::string text = captured_stderr([&] { count = k42mcx_lost(0); });
    if (sizeof(void *) == 8) {
        EXPECT_GT(count, 190'000u); // an old pointer may hold some of the last
        EXPECT_CONTAINS(text, "link.c:1:LB:");
    }
}

} // namespace
