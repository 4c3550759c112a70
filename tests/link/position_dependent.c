/*
 * A position-dependent executable: functions whose address it takes have that address in its own
 * linkage table, and the library's data is copied into it. Both must be what the library uses.
 */
#include "expect.h"
#include <k42mc/k42mc.h>
#include <string.h>

#ifdef __PIE__
#error "to be compiled with -fno-pie"
#endif

int main(void) {
    SLList *list;
    SLLink element;

    EXPECT(SLInit(&list, NULL, NULL, 0, NULL) == DS_OK);
    EXPECT(list->destroy == DSDealloc && list->dealloc == DSDealloc);
    SLDeinit(&list);

    /* Elements of a container with the dummy hook are not touched: this one leads nowhere. */
    EXPECT(SLInit(&list, DSAlloc, DSDealloc, 0, DS_DUMMY) == DS_OK);
    SLInsertLast(list, &element);
    element.next = (SLLink *)1;
    SLDestroy(list);
    EXPECT(SLIsEmpty(list));
    SLDeinit(&list);

    EXPECT(gK42MCOn == 0);
    MCInit(0, 0);
    EXPECT(gK42MCOn == 1);
    /* One lock, whichever way it is taken. */
    EXPECT(MCLock() == 1 && pthread_mutex_trylock(&gMCLock) != 0);
    EXPECT(MCUnlock() == 0 && pthread_mutex_trylock(&gMCLock) == 0);
    EXPECT(pthread_mutex_unlock(&gMCLock) == 0);
    EXPECT(strcmp(gAllocatorType[MC_SHM], "SHM") == 0);
    MCDeinit();
    EXPECT(gK42MCOn == 0);
    return 0;
}
