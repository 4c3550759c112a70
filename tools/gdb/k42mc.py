"""What gdb knows about a process with the checker in it. gdb loads this by itself with the library.

Containers print with the addresses of their elements; `k42mc list` shows the elements as a type.
`k42mc block` reads a guarded block. The other commands call the checker in the process, and refuse to
while a thread is where such a call would wait for it.
"""
import itertools

import gdb
import gdb.printing

# ---- Containers: the addresses of their elements, in order ----


def address_of(link, offset):
    return int(link) - int(offset)


class Visits:
    """Nodes, each of which is reached once, or the walk through a damaged container would not end."""

    def __init__(self):
        self.addresses = set()

    def to(self, node):
        address = int(node)
        if address in self.addresses:
            raise gdb.GdbError(f"The container is damaged: it leads to {address:#x} twice.")
        self.addresses.add(address)
        return node

    def along(self, node, link):
        """To the node, and to those that the link leads to, each from the one before it."""
        while node:
            yield self.to(node)
            node = node[link]


def list_elements(record):
    for link in Visits().along(record["head"], "next"):
        yield address_of(link, record["linkOffset"])


def hash_elements(record):
    visits = Visits()
    for bucket in range(int(record["sizeRow"]["buckets"])):
        for link in visits.along(record["buckets"][bucket], "next"):
            yield address_of(link, record["linkOffset"])


def avl_elements(record):
    thread = 8
    downwards, in_order = Visits(), Visits()
    node, is_thread = record["root"], False
    while node:
        if not is_thread:
            *_, node = downwards.along(node, "left")
        yield address_of(in_order.to(node), record["nodeOffset"])
        is_thread = int(node["state"]) & thread
        node = node["right"]


def patricia_elements(record):
    """A link up ends the search: it leads to the element."""
    visits = Visits()
    links = [(record["head"], record["head"]["left"])]
    while links:
        parent, node = links.pop()
        if int(node["bit"]) > int(parent["bit"]):
            visits.to(node)
            links += [(node, node["right"]), (node, node["left"])]
        elif node != record["head"]:
            yield address_of(node, record["nodeOffset"])


def prefix_elements(record):
    void_pointer = gdb.lookup_type("void").pointer()
    visits, elements = Visits(), Visits()
    waiting, node = [], record["root"]
    while node or waiting:
        waiting += visits.along(node, "left")
        node = waiting.pop()
        element = int(node["element"])
        while element:
            yield elements.to(element)
            link = gdb.Value(element + int(record["chainOffset"])).cast(void_pointer.pointer())
            element = int(link.dereference())
        node = node["right"]


def heap_elements(record):
    for slot in range(1, int(record["count"]) + 1):
        yield address_of(record["slots"][slot], record["nodeOffset"])


CONTAINERS = {
    "SLList": list_elements,
    "DLList": list_elements,
    "HTTable": hash_elements,
    "AVLTree": avl_elements,
    "PTTree": patricia_elements,
    "PXTable": prefix_elements,
    "BHHeap": heap_elements,
}


class ContainerPrinter:
    """SLList of 2 elements = {0x4052a0, 0x4052c0}"""

    most = 1000

    def __init__(self, record):
        self.name = record.type.unqualified().strip_typedefs().name
        self.elements = list(itertools.islice(CONTAINERS[self.name](record), self.most + 1))

    def to_string(self):
        count = len(self.elements)
        number = f"more than {self.most}" if count > self.most else count
        return f"{self.name} of {number} element{'s'[:count != 1]}"

    def children(self):
        for at, element in enumerate(self.elements[: self.most]):
            yield f"[{at}]", gdb.Value(element).cast(gdb.lookup_type("void").pointer())

    @staticmethod
    def display_hint():
        return "array"


def printers():
    collection = gdb.printing.RegexpCollectionPrettyPrinter("k42mc")
    for name in CONTAINERS:
        collection.add_printer(name, f"^{name}$", ContainerPrinter)
    return collection


# ---- Memory ----


def word_size():
    return gdb.lookup_type("void").pointer().sizeof


def read(address, size):
    return bytes(gdb.selected_inferior().read_memory(address, size))


def read_words(address, count):
    data, size = read(address, count * word_size()), word_size()
    return [int.from_bytes(data[at : at + size], "little") for at in range(0, len(data), size)]


def symbol_bytes(name, size):
    return read(int(gdb.parse_and_eval(f"(unsigned long) &{name}")), size)


def function_at(address):
    block = gdb.current_progspace().block_for_pc(address)
    while block and not block.function:
        block = block.superblock
    if block:
        return block.function.print_name
    symbol = gdb.execute(f"info symbol {address}", to_string=True).strip()
    return f"in {gdb.solib_name(address) or '?'}" if symbol.startswith("No symbol") else symbol.split(" in section")[0]


def print_trace(addresses):
    for address in itertools.takewhile(bool, addresses):
        line = gdb.find_pc_line(address - 1)
        place = f" at {line.symtab.filename}:{line.line}" if line.symtab else ""
        print(f"    {address:#x} {function_at(address - 1)}{place}")


# ---- A guarded block, read without the process's help ----

GUARD_WORDS = 8
ARENAS = ("UNKNOWN", "STD", "SYS", "FIX", "VAR", "SHM")


def arena_name(arena):
    return ARENAS[arena] if arena < len(ARENAS) else f"{arena:#x}, which is none"


class GuardedBlock:
    """What header and tail of a block say; None from at() for memory without a guarded block."""

    def __init__(self, user):
        self.user = user
        size = word_size()
        header = read(user - GUARD_WORDS * size, GUARD_WORDS * size)
        pattern = symbol_bytes("k42mc_free_guard", 28) * 2
        self.words = read_words(user - GUARD_WORDS * size, GUARD_WORDS)
        self.live = header[:size] == symbol_bytes("k42mc_head_alloc_guard", size)
        # libc keeps links of its own in the first four words of memory that is free.
        self.freed = header[4 * size : 7 * size] == pattern[4 * size : 7 * size]

    @classmethod
    def at(cls, address):
        """The block that begins there, or the one around it, of at most 64 KiB."""
        for user in range(address, max(address - 65536, 0), -1):
            try:
                block = cls(user)
            except gdb.MemoryError:
                return None
            if (block.live and address <= user + block.size()) or (block.freed and user == address):
                return block
        return None

    def size(self):
        alignment = self.words[6] >> (8 * word_size() - 5)
        return self.words[7] - 2 * GUARD_WORDS * word_size() - ((1 << alignment) - 1)

    def describe(self):
        tail = self.user + self.size() if self.live else self.words[7]
        words = read_words(tail, GUARD_WORDS)
        state = "live" if self.live else "released"
        print(f"{self.user:#x}: {state}, {tail - self.user} bytes, arena {arena_name(words[7])}")
        if self.live:
            pattern = symbol_bytes("k42mc_tail_alloc_guard", 28) * 2
            if read(tail, 7 * word_size()) != pattern[: 7 * word_size()]:
                print("  written past its end: the tail is damaged (WO)")
        print("  allocated by" if self.live else "  released by")
        print_trace(self.words[1:6] if self.live else words[2:7])


# ---- Calls into the process ----

ALLOCATING = {"malloc", "free", "calloc", "realloc", "_int_malloc", "_int_free", "_int_realloc", "malloc_consolidate"}


def lock_is_held(name):
    # The first word of a mutex is 0 while nobody has it.
    return int.from_bytes(symbol_bytes(name, 4), "little") != 0


def recording_descriptors(functions):
    """For a library without its own symbols, whose lock for descriptors has no name."""
    return any(name.startswith("FD") or name == "k42mcx_fd_event" for name in functions)


def functions_of(thread):
    thread.switch()
    frame, names = gdb.newest_frame(), []
    for _ in range(16):
        if frame is None:
            break
        names.append(frame.name() or "")
        frame = frame.older()
    return names


def refuse_while_busy():
    selected = gdb.selected_thread()
    if selected is None:
        raise gdb.GdbError("No process runs: start it, or attach to it.")
    if lock_is_held("gMCLock"):
        raise gdb.GdbError("A thread holds the memory checker's lock: let the process go on, and try again.")
    frame = gdb.selected_frame()
    try:
        for thread in gdb.selected_inferior().threads():
            functions = functions_of(thread)
            if ALLOCATING & set(functions):
                raise gdb.GdbError(f"Thread {thread.num} is inside the allocator: let the process go on, and try again.")
            if recording_descriptors(functions):
                raise gdb.GdbError(f"Thread {thread.num} is inside the descriptor checker: let the process go on, and try again.")
    finally:
        selected.switch()
        frame.select()


def call(expression):
    """Of the checker, with all other threads standing still."""
    refuse_while_busy()
    before = gdb.parameter("scheduler-locking")
    gdb.execute("set scheduler-locking on")
    try:
        return gdb.parse_and_eval(expression)
    finally:
        gdb.execute(f"set scheduler-locking {before}")


def reversed_bytes(number, size=4):
    """Arguments of the reports come with their bytes reversed."""
    return int.from_bytes((number % (1 << 8 * size)).to_bytes(size, "little"), "big")


# ---- Commands ----


def command(words, usage, most=1):
    """A gdb command. Its help is the function's; one argument is an expression, with its blanks."""

    def register(function):
        def invoke(_, text, __):
            whole = [text] if text else []
            arguments = gdb.string_to_argv(text) if most > 1 else whole
            needed = usage.count("<")
            if not needed <= len(arguments) <= most:
                raise gdb.GdbError(f"usage: {words} {usage}".rstrip())
            try:
                function(*arguments)
            except gdb.MemoryError as error:
                raise gdb.GdbError(str(error)) from error

        documentation = f"{function.__doc__}\nUsage: {words} {usage}".rstrip()
        members = {"__doc__": documentation, "invoke": invoke}
        completion = gdb.COMPLETE_EXPRESSION if "EXPRESSION" in usage or "ADDRESS" in usage else gdb.COMPLETE_NONE
        type(function.__name__, (gdb.Command,), members)(words, gdb.COMMAND_DATA, completion)
        return function

    return register


def number_of(text):
    return int(gdb.parse_and_eval(text))


class Prefix(gdb.Command):
    """The memory and descriptor checker in the process: what it knows, and what it can be asked for."""

    def __init__(self):
        super().__init__("k42mc", gdb.COMMAND_DATA, prefix=True)


Prefix()


@command("k42mc list", "<EXPRESSION> [TYPE]", most=2)
def list_container(expression, element_type=None):
    """Shows a container's elements: their addresses, or with a type what they hold."""
    record = gdb.parse_and_eval(expression)
    if record.type.strip_typedefs().code == gdb.TYPE_CODE_PTR:
        record = record.dereference()
    walk = CONTAINERS.get(record.type.unqualified().strip_typedefs().name)
    if walk is None:
        raise gdb.GdbError(f"{expression} is a {record.type}, not one of {', '.join(CONTAINERS)}.")
    pointer = gdb.lookup_type(element_type).pointer() if element_type else None
    for at, element in enumerate(walk(record)):
        shown = f" {gdb.Value(element).cast(pointer).dereference()}" if pointer else ""
        print(f"[{at}] {element:#x}{shown}")


@command("k42mc block", "<ADDRESS>")
def show_block(address):
    """Shows the guarded block at an address, or around it: its state, size, arena and traces."""
    block = GuardedBlock.at(number_of(address))
    if block is None:
        raise gdb.GdbError(f"{address} is in no guarded block.")
    block.describe()


@command("k42mc check", "<ADDRESS>")
def check(address):
    """Asks the memory checker what it has recorded about an address."""
    call(f"((unsigned (*)(unsigned long)) MCCheck)({reversed_bytes(number_of(address), word_size())})")


@command("k42mc report", "[LIMIT]")
def report(limit="1"):
    """Reports the blocks that have survived so many reports, as one more cycle."""
    call(f"((void (*)(unsigned)) MCReport)({reversed_bytes(number_of(limit))})")


@command("k42mc verify", "", most=0)
def verify():
    """Compares the guards of all live blocks, and reports the damaged ones."""
    damaged = int(call("((unsigned (*)(void)) k42mcx_verify)()"))
    print(f"{damaged} damaged block{'s'[:damaged != 1]}")


@command("k42mc lost", "[LIMIT]")
def lost(limit="0"):
    """Lists the blocks that have survived so many reports and that no pointer leads to any more. One that only
    registers of this thread hold, of those that a call may change, is among them."""
    count = int(call(f"((unsigned long (*)(unsigned)) k42mcx_lost)({number_of(limit)})"))
    print(f"{count} lost block{'s'[:count != 1]}")


@command("k42mc why", "<ADDRESS>")
def why(address):
    """Shows by which pointers the recorded block at an address is held, or around it."""
    call(f"((int (*)(const void *)) k42mcx_why)((void *) {number_of(address)})")


@command("k42mc filter", "<in|out> <TEXT>", most=2)
def filter_site(way, text):
    """Asks for traces of an allocation site, or for none: a line of a report names it."""
    if way not in ("in", "out"):
        raise gdb.GdbError("usage: k42mc filter <in|out> <TEXT>")
    # Taken apart in place, so in memory of the process's own.
    refuse_while_busy()
    memory = int(gdb.parse_and_eval(f"((unsigned long (*)(unsigned long)) malloc)({len(text.encode()) + 1})"))
    if memory == 0:
        raise gdb.GdbError("No memory.")
    gdb.selected_inferior().write_memory(memory, text.encode() + b"\0")
    status = int(call(f"((int (*)(char *, int)) MCBTFilterSet)((char *) {memory}, {int(way == 'in')})"))
    gdb.parse_and_eval(f"((void (*)(unsigned long)) free)({memory})")
    if status != 0:
        raise gdb.GdbError("The checker takes no such filter.")


@command("k42mc descriptor", "<DESCRIPTOR>")
def descriptor_history(descriptor):
    """Shows a descriptor's history with the stack trace of each event."""
    call(f"((void (*)(int)) FDCheck)({reversed_bytes(number_of(descriptor))})")


SCHEMES = ("used", "multiple", "alarming", "open", "closed")


@command("k42mc descriptors", "[used|multiple|alarming|open|closed]")
def descriptor_report(scheme="used"):
    """Lists the descriptors that have a history, many events, an alarm, or are open or closed."""
    if scheme not in SCHEMES:
        raise gdb.GdbError(f"One of {', '.join(SCHEMES)}.")
    call(f"((void (*)(unsigned)) FDReport)({reversed_bytes(SCHEMES.index(scheme))})")


gdb.printing.register_pretty_printer(gdb.current_objfile(), printers(), replace=True)
