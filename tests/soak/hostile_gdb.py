"""In gdb, at a process that stands still: damages its containers and guards over and over, and asks for them."""

import os
import random
import time

import gdb

ROUNDS = 500
NAMES = ("single", "pair", "table", "tree", "patricia", "prefixes", "heap")
COMMANDS = [f"k42mc list {name}{key}" for name in NAMES for key in ("", " uint32_t")]
COMMANDS += [f"k42mc block {block}" for block in ("live", "released", "damaged", "&items", "live + 3")]

seed = int(os.environ.get("K42MC_SEED", time.time()))
print(f"repeat with K42MC_SEED={seed}")
chance = random.Random(seed)
process = gdb.selected_inferior()
width = gdb.lookup_type("long").sizeof


def memory_of(expression, size):
    return int(gdb.parse_and_eval(f"(long) {expression}")), size


places = [memory_of("&items", int(gdb.parse_and_eval("sizeof items")))]
places += [memory_of(name, int(gdb.parse_and_eval(f"sizeof *{name}"))) for name in NAMES]
places += [memory_of(f"({block} - 64)", 160) for block in ("live", "released", "damaged")]
sound = [(address, bytes(process.read_memory(address, size))) for address, size in places]
targets = [address for address, _ in places]


def damage():
    address, size = chance.choice(places)
    value = chance.choice((chance.getrandbits(8 * width), chance.choice(targets) + chance.randrange(64), chance.randrange(300), 0))
    at = address + chance.randrange(size - width)
    if chance.random() < 0.7:
        at -= at % width
    process.write_memory(at, (value % (1 << 8 * width)).to_bytes(width, "little"))


refused = 0
for _ in range(ROUNDS):
    for address, content in sound:
        process.write_memory(address, content)
    for _ in range(chance.randrange(1, 6)):
        damage()
    command = chance.choice(COMMANDS)
    start = time.process_time()  # on a busy machine, too
    try:
        said = gdb.execute(command, to_string=True)
    except gdb.error as error:  # what gdb shows as a message; anything else ends the run
        refused += 1
        said = str(error)
    if time.process_time() - start > 20 or len(said) > 10_000_000 or "Traceback" in said:
        raise RuntimeError(f"{command}: {len(said)} characters, {said[:2000]}")
print(f"survived {ROUNDS} times, {refused} with a message")
