#include <k42mc/k42mc.h>
#include <stdio.h>
#include <string.h>

struct word {
    const char *text;
    AVLNode node;
};

static int32_t compare(const void *a, const void *b) {
    return strcmp(*(const char *const *)a, *(const char *const *)b);
}

static void print(void *word) {
    puts(((struct word *)word)->text);
}

int main(void) {
    struct word words[] = {{.text = "guard"}, {.text = "block"}, {.text = "trace"}};
    AVLTree *tree;
    if (AVLInit(&tree, NULL, NULL, offsetof(struct word, node), offsetof(struct word, text), compare,
                DS_DUMMY) != DS_OK)
        return 1;
    for (int i = 0; i < 3; ++i)
        AVLInsert(tree, &words[i], NULL);
    AVLVisit(tree, 0, print);
    AVLDeinit(&tree);
    return 0;
}
