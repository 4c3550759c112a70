// Two modules with the same code at the same place, but for the size of the frame.
extern "C" void module_call(void (*hook)()) {
    volatile char memory[FRAME_BYTES];
    memory[0] = 1;
    hook();
    memory[1] = 1;
}
