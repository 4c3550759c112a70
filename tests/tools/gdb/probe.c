/* Knows nothing of the library: gdb calls twice() in it, or cannot call a function in any process here. */
int twice(int number);

int twice(int number) {
    return 2 * number;
}

int main(void) {
    return twice(0);
}
