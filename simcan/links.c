// The simulated interfaces: names, numbers, and the calls that translate them.

#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "internal.h"

enum { FIRST_INDEX = 1000000 };  // which no real interface has
#define DEFAULT "can0 can1"

struct link links[LINK_LIMIT];
static int count;
static uint64_t run;
static pthread_once_t linksRead = PTHREAD_ONCE_INIT;

// FNV-1a.
static uint64_t hash(uint64_t seed, const char* text) {
    uint64_t value = 0xCBF29CE484222325u ^ seed;
    for (; *text != '\0'; text++) value = (value ^ (unsigned char)*text) * 0x100000001B3u;
    return value ^ value >> 32;
}

static const char* setting(const char* variable, const char* otherwise) {
    const char* text = getenv(variable);
    return text != NULL ? text : otherwise;
}

static void refuse(const char* variable, const char* text, const char* word, const char* right) {
    fprintf(stderr, "simcan: %s='%s': '%.60s' is wrong. Write %s\n", variable, text, word, right);
    _exit(2);
}

void readWords(const char* variable, const char* otherwise, const char* separators,
               int (*add)(char* word), const char* right) {
    const char* const text = setting(variable, otherwise);
    char* const list = strdup(text);
    char* rest = NULL;
    for (char* word = list != NULL ? strtok_r(list, separators, &rest) : NULL; word != NULL;
         word = strtok_r(NULL, separators, &rest)) {
        const ptrdiff_t at = word - list;
        if (!add(word)) refuse(variable, text, text + at, right);
    }
    free(list);
}

static struct link* find(const char* name) {
    for (int i = 0; i < count; i++) {
        if (strcmp(links[i].name, name) == 0) return &links[i];
    }
    return NULL;
}

// False when it is not NAME or NAME:BUS, or one interface too many.
static int addLink(char* word) {
    const char* const letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    char* const colon = strchr(word, ':');
    if (colon != NULL) *colon = '\0';
    const char* const bus = colon != NULL ? colon + 1 : "0";
    if (*word == '\0' || word[strspn(word, letters)] != '\0' || strlen(word) >= IFNAMSIZ) return 0;
    if (*bus == '\0' || bus[strspn(bus, letters)] != '\0') return 0;
    if (find(word) != NULL || count == LINK_LIMIT) return 0;
    struct link* const link = &links[count++];
    memcpy(link->name, word, strlen(word) + 1);
    link->bus = (uint32_t)hash(run, bus);
    link->number = (uint32_t)hash(link->bus, word);
    return 1;
}

static void readLinks(void) {
    const char* const right =
        "SIMCAN='can0 can1', or 'can0:left can1:right': 1 to 32 interfaces, "
        "each once, with at most 15 characters";
    run = hash(getuid(), setting("SIMCAN_RUN", ""));
    readWords("SIMCAN", DEFAULT, BLANKS, addLink, right);
    if (count == 0) refuse("SIMCAN", setting("SIMCAN", ""), "", right);
}

__attribute__((constructor)) int linkCount(void) {
    pthread_once(&linksRead, readLinks);
    return count;
}

uint64_t runNumber(void) {
    linkCount();
    return run;
}

struct link* linkNamed(const char* name) {
    linkCount();
    return find(name);
}

struct link* linkAt(int index) {
    const int position = index - FIRST_INDEX;
    return position >= 0 && position < linkCount() ? &links[position] : NULL;
}

int indexOf(const struct link* link) {
    return FIRST_INDEX + (int)(link - links);
}

void reportMissing(const char* name) {
    static atomic_flag told = ATOMIC_FLAG_INIT;
    const int saved = errno;
    if (!atomic_flag_test_and_set(&told)) {
        fprintf(stderr, "simcan: no interface %.*s, SIMCAN='%s'\n", IFNAMSIZ, name,
                setting("SIMCAN", DEFAULT));
    }
    errno = saved;
}

EXPORT unsigned if_nametoindex(const char* name) {
    const struct link* link = linkNamed(name);
    if (link != NULL) return (unsigned)indexOf(link);
    const unsigned index = REAL(if_nametoindex)(name);
    if (index == 0 && errno == ENODEV) reportMissing(name);
    return index;
}

EXPORT char* if_indextoname(unsigned index, char name[IFNAMSIZ]) {
    const struct link* link = linkAt((int)index);
    return link != NULL ? memcpy(name, link->name, IFNAMSIZ) : REAL(if_indextoname)(index, name);
}

// The system's interfaces, and the simulated ones behind them; laid out as if_freenameindex frees.
EXPORT struct if_nameindex* if_nameindex(void) {
    struct if_nameindex* list = REAL(if_nameindex)();
    size_t size = 0;
    while (list != NULL && list[size].if_index != 0) size++;
    struct if_nameindex* all = realloc(list, (size + (size_t)linkCount() + 1) * sizeof *all);
    if (all == NULL) {
        if (list != NULL) if_freenameindex(list);
        errno = ENOBUFS;
        return NULL;
    }
    for (int i = 0; i < linkCount(); i++) {
        all[size++] = (struct if_nameindex){(unsigned)indexOf(&links[i]), strdup(links[i].name)};
    }
    all[size] = (struct if_nameindex){0, NULL};
    return all;
}
