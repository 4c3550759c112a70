/* Passes over the spaces ahead of a word, and releases it from where it begins. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static char *trim(const char *text) {
    char *word = malloc(strlen(text) + 1);
    strcpy(word, text);
    while (*word == ' ')
        ++word;
    return word;
}

int main(void) {
    char *word = trim("   hello");
    puts(word);
    free(word);
}
