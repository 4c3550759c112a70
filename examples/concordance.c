/*
 * A concordance: reads text files, then tells for each word that it is asked for where it stands.
 *
 *     echo guard | concordance README.md CHANGELOG.md
 *
 * The program is written with the plain malloc, free, strdup and getline, and compiled with the redirect
 * flags, which hand each of those calls to the checker together with its file and line. Three calls are
 * about the checker itself: main switches it on with MCInit, asks for a report after every file with
 * MCReport, and lets MCCheck tell what it knows of one address. In the same way open, fclose and their
 * like are reported to the descriptor checker, and main asks it with FDReport and FDCheck.
 *
 * Small blocks come from malloc. The tables that hold the index are few and grow large, and come from a
 * memory manager of the program's own (pages.c), through the second family of wrappers.
 *
 * A switch makes the program commit one of seven mistakes that people make in such code. Look for the
 * places where `mistake` is compared.
 */
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <k42mc/k42mc.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define table_resize(table, size) k42MC_MM_realloc(__FILE__, __LINE__, table, size)
#define table_free(table)         k42MC_MM_free(__FILE__, __LINE__, table)

enum { NONE, LEAK, OVERRUN, UNDERRUN, DOUBLE_FREE, WRONG_FAMILY, CLOSE_TWICE, KEEP_OPEN };
static int mistake = NONE;

/* The first block that --leak loses, for --check. A number, since nobody is to follow it. */
static uintptr_t lost;

/* The descriptor of the first file, for --descriptors. */
static int first_descriptor = -1;

static void fail(const char *what) {
    fprintf(stderr, "concordance: %s: %s\n", what, strerror(errno));
    exit(EXIT_FAILURE);
}

/* A block that has just been asked for; the program does not go on without it. */
static void *needed(void *block) {
    if (block == NULL)
        fail("allocation");
    return block;
}

/* ---- The index ----
 *
 * Words and places are numbered, and refer to each other by number: so the tables may move when they
 * grow. Number 0 is no word and no place.
 */

struct table {
    void *items;
    uint32_t used;
    uint32_t room;
};

/* One line of one file in which a word stands. */
struct place {
    uint32_t file;
    uint32_t line;
    uint32_t next; /* of the same word; 0 in its last place */
};

struct word {
    uint32_t text; /* where its spelling begins in the table of text */
    uint32_t hash;
    uint32_t next_in_bucket;
    uint32_t first_place;
    uint32_t last_place;
};

struct index {
    char **files; /* their paths, from the command line */
    int file_count;
    struct table text; /* of char: every spelling, each with its terminator */
    struct table words;
    struct table places;
    uint32_t *buckets; /* the first word of each hash value, modulo their count */
    uint32_t bucket_count;
};

/* Makes room for more items at the end of a table, counts them as used, and returns the first's number.
 */
static uint32_t table_add(struct table *table, uint32_t more, size_t item_size) {
    uint32_t number = table->used;
    if (table->room - table->used < more) {
        table->room = 2 * table->room + more;
        table->items = needed(table_resize(table->items, table->room * item_size));
    }
    table->used += more;
    return number;
}

static const char *text_at(const struct index *index, uint32_t number) {
    return (const char *)index->text.items + number;
}

static struct word *word_at(const struct index *index, uint32_t number) {
    return (struct word *)index->words.items + number;
}

static struct place *place_at(const struct index *index, uint32_t number) {
    return (struct place *)index->places.items + number;
}

static void index_open(struct index *index, char **files, int file_count) {
    *index = (struct index){.files = files, .file_count = file_count, .bucket_count = 64};
    index->buckets = needed(calloc(index->bucket_count, sizeof *index->buckets));
    table_add(&index->words, 1, sizeof(struct word));
    table_add(&index->places, 1, sizeof(struct place));
}

static void index_close(struct index *index) {
    table_free(index->text.items);
    table_free(index->words.items);
    table_free(index->places.items);
    if (mistake == WRONG_FAMILY)
        table_free(index->buckets); /* A table like the others, it seems; but calloc made this one. */
    else
        free(index->buckets);
}

/* FNV-1a: short, and good enough for words. */
static uint32_t hash_of(const char *spelling) {
    uint32_t hash = 2166136261u;
    for (const char *c = spelling; *c != '\0'; ++c)
        hash = (hash ^ (unsigned char)*c) * 16777619u;
    return hash;
}

/* The word's number, or 0. */
static uint32_t find(const struct index *index, const char *spelling) {
    uint32_t hash = hash_of(spelling);
    uint32_t number = index->buckets[hash % index->bucket_count];
    while (number != 0) {
        const struct word *word = word_at(index, number);
        if (word->hash == hash && strcmp(text_at(index, word->text), spelling) == 0)
            break;
        number = word->next_in_bucket;
    }
    return number;
}

static void put_into_bucket(struct index *index, uint32_t number) {
    struct word *word = word_at(index, number);
    uint32_t *bucket = &index->buckets[word->hash % index->bucket_count];
    word->next_in_bucket = *bucket;
    *bucket = number;
}

/* Twice as many buckets, so that they stay short. */
static void spread(struct index *index) {
    free(index->buckets);
    index->bucket_count *= 2;
    index->buckets = needed(calloc(index->bucket_count, sizeof *index->buckets));
    for (uint32_t number = 1; number < index->words.used; ++number)
        put_into_bucket(index, number);
}

static uint32_t add_word(struct index *index, const char *spelling) {
    uint32_t size = (uint32_t)strlen(spelling) + 1;
    uint32_t text = table_add(&index->text, size, 1);
    memcpy((char *)index->text.items + text, spelling, size);

    uint32_t number = table_add(&index->words, 1, sizeof(struct word));
    *word_at(index, number) = (struct word){.text = text, .hash = hash_of(spelling)};
    if (number >= index->bucket_count)
        spread(index);
    else
        put_into_bucket(index, number);
    return number;
}

/* Adds a place to a word, once for each line however often the word stands there. */
static void add_place(struct index *index, uint32_t word_number, uint32_t file, uint32_t line) {
    uint32_t last = word_at(index, word_number)->last_place;
    if (last != 0 && place_at(index, last)->file == file && place_at(index, last)->line == line)
        return;
    uint32_t number = table_add(&index->places, 1, sizeof(struct place));
    *place_at(index, number) = (struct place){.file = file, .line = line};
    struct word *word = word_at(index, word_number);
    if (last != 0)
        place_at(index, last)->next = number;
    else
        word->first_place = number;
    word->last_place = number;
}

/* ---- Reading ---- */

static bool is_word_char(char c) {
    return isalnum((unsigned char)c) || c == '_';
}

static void fold(char *text) {
    for (; *text != '\0'; ++text)
        *text = (char)tolower((unsigned char)*text);
}

/* Takes a line apart in place. */
static void index_line(struct index *index, char *text, uint32_t file, uint32_t line) {
    fold(text);
    while (*text != '\0') {
        if (!is_word_char(*text)) {
            ++text;
            continue;
        }
        char *end = text;
        while (is_word_char(*end))
            ++end;
        bool more = *end != '\0';
        *end = '\0';
        uint32_t word = find(index, text);
        add_place(index, word != 0 ? word : add_word(index, text), file, line);
        text = end + more;
    }
}

/* Says on standard error what a file has brought. */
static void announce(const char *path, uint32_t lines, uint32_t new_words) {
    const char *slash = strrchr(path, '/');
    char *title = needed(strdup(slash != NULL ? slash + 1 : path));
    char *dot = strrchr(title, '.');
    if (dot != NULL)
        *dot = '\0';
    fprintf(stderr, "concordance: %s: %u lines, %u new words\n", title, lines, new_words);
    if (mistake == LEAK) {
        if (lost == 0)
            lost = (uintptr_t)title;
        return; /* An early way out, and the free below it is forgotten. */
    }
    free(title);
}

/* Before any work is done. */
static void check_readable(char **files, int count) {
    for (int file = 0; file < count; ++file) {
        int descriptor = open(files[file], O_RDONLY);
        if (descriptor == -1)
            fail(files[file]);
        close(descriptor);
    }
}

static void index_file(struct index *index, uint32_t file) {
    const char *path = index->files[file];
    int descriptor = open(path, O_RDONLY);
    FILE *stream = descriptor != -1 ? fdopen(descriptor, "r") : NULL;
    if (stream == NULL)
        fail(path);
    if (first_descriptor == -1)
        first_descriptor = descriptor;
    uint32_t words_before = index->words.used;
    uint32_t lines = 0;
    char *line = NULL;
    size_t room = 0;
    while (getline(&line, &room, stream) != -1)
        index_line(index, line, file, ++lines);
    free(line);
    announce(path, lines, index->words.used - words_before);
    if (mistake == KEEP_OPEN)
        return; /* Nothing left to do, but for the stream. */
    fclose(stream);
    if (mistake == CLOSE_TWICE)
        close(descriptor); /* What was opened has to be closed; but the stream has done that. */
}

/* ---- Answering ---- */

/* The width of the column of paths: the longest one's. */
static size_t column_width(const struct index *index) {
    size_t width = strlen(index->files[0]);
    if (mistake == UNDERRUN)
        return width; /* The first path was the longest one, in every test. */
    for (int file = 1; file < index->file_count; ++file)
        if (strlen(index->files[file]) > width)
            width = strlen(index->files[file]);
    return width;
}

/* A new string of the given width with the text at its right end. */
static char *right_aligned(const char *text, size_t width) {
    size_t length = strlen(text);
    char *column = needed(malloc(width + 1));
    memset(column, ' ', width);
    memcpy(column + width - length, text,
           length); /* Starts in front of the block if the text is longer. */
    column[width] = '\0';
    return column;
}

/* A folded copy of what was asked for, without the line's end. */
static char *asked_word(const char *line) {
    size_t length = strcspn(line, "\r\n");
    size_t size = length + 1;
    if (mistake == OVERRUN)
        size = length; /* No room for the terminator. */
    char *word = needed(malloc(size));
    memcpy(word, line, length);
    word[length] = '\0';
    fold(word);
    return word;
}

static void print_places(const struct index *index, uint32_t word) {
    size_t width = column_width(index);
    uint32_t number = word_at(index, word)->first_place;
    while (number != 0) {
        uint32_t file = place_at(index, number)->file;
        char *column = right_aligned(index->files[file], width);
        printf("  %s:", column);
        for (; number != 0 && place_at(index, number)->file == file;
             number = place_at(index, number)->next)
            printf(" %u", place_at(index, number)->line);
        putchar('\n');
        free(column);
    }
}

static void answer(const struct index *index, const char *line) {
    char *asked = asked_word(line);
    uint32_t word = find(index, asked);
    if (word != 0) {
        printf("%s\n", asked);
        print_places(index, word);
    } else {
        printf("%s: not found\n", asked);
        if (mistake == DOUBLE_FREE)
            free(asked); /* Nothing more to do with it; the last line of this function thinks so too. */
    }
    free(asked);
}

static void answer_all(const struct index *index) {
    char *line = NULL;
    size_t room = 0;
    while (getline(&line, &room, stdin) != -1)
        answer(index, line);
    free(line);
}

/* ---- The command line ---- */

static void usage(void) {
    fputs(
        "usage: concordance [options] file... <words, one a line\n"
        "  --to-file       let the checker report to a file, not to standard error\n"
        "  --check         tell at the end what the checker knows of the block that --leak lost first\n"
        "  --descriptors   tell at the end what is known of the descriptors\n"
        "and one mistake, if any:\n"
        "  --leak          lose a small block with every file\n"
        "  --overrun       write past the end of a block\n"
        "  --underrun      write in front of a block\n"
        "  --double-free   free a block twice\n"
        "  --wrong-family  free a block through the other allocator\n"
        "  --close-twice   close a file's descriptor behind its stream's back\n"
        "  --keep-open     forget to close the files\n",
        stderr);
    exit(EXIT_FAILURE);
}

int main(int argc, char **argv) {
    int to_file = 0;
    int check = 0;
    int descriptors = 0;
    const struct option options[] = {
        {"to-file", no_argument, &to_file, 1},
        {"check", no_argument, &check, 1},
        {"descriptors", no_argument, &descriptors, 1},
        {"leak", no_argument, &mistake, LEAK},
        {"overrun", no_argument, &mistake, OVERRUN},
        {"underrun", no_argument, &mistake, UNDERRUN},
        {"double-free", no_argument, &mistake, DOUBLE_FREE},
        {"wrong-family", no_argument, &mistake, WRONG_FAMILY},
        {"close-twice", no_argument, &mistake, CLOSE_TWICE},
        {"keep-open", no_argument, &mistake, KEEP_OPEN},
        {NULL, 0, NULL, 0},
    };
    int option;
    while ((option = getopt_long(argc, argv, "", options, NULL)) != -1)
        if (option != 0)
            usage();
    if (optind == argc)
        usage();

    check_readable(argv + optind, argc - optind);
    MCInit(K42MC_BE32(to_file ? MC_TO_FILE : MC_TO_STDERR), K42MC_BE32(MC_TYPE_LKBF));

    struct index index;
    index_open(&index, argv + optind, argc - optind);
    for (int file = 0; file < index.file_count; ++file) {
        index_file(&index, (uint32_t)file);
        MCReport(K42MC_BE32(2)); /* List what was there at the last report already. */
    }
    answer_all(&index);
    if (check)
        MCCheck(K42MC_BE_ADDR(lost));
    if (descriptors) {
        FDReport(K42MC_BE32(FD_REPORT_ALL_USED));
        FDCheck((int32_t)K42MC_BE32(first_descriptor));
    }
    index_close(&index);
    return EXIT_SUCCESS;
}
