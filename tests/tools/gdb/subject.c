/* What there is to look at from gdb, in look(), and then with the checker's lock taken, in busy(). */
#include <k42mc/k42mc.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <k42mc/redirect.h>

typedef struct Item {
    uint32_t number;
    uint16_t bits;
    struct Item *chain;
    SLLink single;
    DLLink pair;
    HTLink hashed;
    AVLNode sorted;
    PTNode radix;
    BHNode heaped;
} Item;

static Item items[5];
static SLList *single;
static DLList *pair;
static HTTable *table;
static AVLTree *tree;
static PTTree *patricia;
static PXTable *prefixes;
static BHHeap *heap;
static char *live, *released, *damaged;

static uint32_t hash(const void *key) {
    return *(const uint32_t *)key;
}

static int32_t compare(const void *key, const void *other) {
    return *(const int32_t *)key - *(const int32_t *)other;
}

static int32_t differs(const void *key, const void *other) {
    return compare(key, other) != 0;
}

static void fill(void) {
    SLInit(&single, NULL, NULL, offsetof(Item, single), NULL);
    DLInit(&pair, NULL, NULL, offsetof(Item, pair), NULL);
    HTInit(&table, NULL, NULL, offsetof(Item, hashed), offsetof(Item, number), hash, differs, NULL);
    AVLInit(&tree, NULL, NULL, offsetof(Item, sorted), offsetof(Item, number), compare, NULL);
    PTInit(&patricia, NULL, NULL, offsetof(Item, radix), offsetof(Item, number), 32, 0, NULL);
    PXInit(&prefixes, NULL, NULL, offsetof(Item, chain), offsetof(Item, number), offsetof(Item, bits),
           NULL);
    BHInit(&heap, NULL, NULL, offsetof(Item, heaped), offsetof(Item, number), compare, NULL);
    for (uint32_t i = 0; i < 5; ++i) {
        items[i].number = i * 3 % 5;
        items[i].bits = 8;
        SLInsertLast(single, &items[i]);
        DLInsertLast(pair, &items[i]);
        HTInsert(table, &items[i], NULL);
        AVLInsert(tree, &items[i], NULL);
        PTInsert(patricia, &items[i], NULL);
        PXInsert(prefixes, &items[i]);
        BHInsert(heap, &items[i]);
    }
}

void look(void) {}

void busy(void) {}

int main(void) {
    MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(MC_TYPE_LKBF));
    fill();
    live = malloc(10);
    released = malloc(11);
    damaged = malloc(12);
    char *end = damaged + 12;
    memset(end, 'x', 1);
    FDOpen("worker", 4);
    free(released);
    look();
    pthread_mutex_lock(&gMCLock);
    busy();
    exit(0);
}
