// The simulated interfaces: names, numbers, and the calls that translate them.

#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "internal.h"

enum { FIRST_INDEX = 1000000 };  // which no real interface has

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

static const char* setting(void) {
    const char* text = getenv("SIMCAN");
    return text != NULL ? text : "can0 can1";
}

void refuse(const char* variable, const char* word, const char* why, const char* right) {
    const char* const text = getenv(variable);
    fprintf(stderr, "simcan: %s='%s': '%s' %s. Write %s\n", variable, text, word, why, right);
    _exit(2);
}

static struct link* find(const char* name) {
    for (int i = 0; i < count; i++) {
        if (strcmp(links[i].name, name) == 0) return &links[i];
    }
    return NULL;
}

// Adds an interface. Returns what is wrong with it, or NULL.
static const char* addLink(const char* name, const char* bus) {
    const char* const letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    if (*name == '\0' || *bus == '\0' || name[strspn(name, letters)] != '\0' ||
        bus[strspn(bus, letters)] != '\0')
        return "is neither NAME nor NAME:BUS";
    if (strlen(name) >= IFNAMSIZ) return "has more than 15 characters";
    if (find(name) != NULL) return "stands twice";
    if (count == LINK_LIMIT) return "is one interface too many";
    struct link* const link = &links[count++];
    memcpy(link->name, name, strlen(name) + 1);
    link->bus = (uint32_t)hash(run, bus);
    link->number = (uint32_t)hash(link->bus, name);
    return NULL;
}

static void readLinks(void) {
    const char* text = getenv("SIMCAN_RUN");
    run = hash(getuid(), text != NULL ? text : "");
    char* list = strdup(setting());
    char* rest = NULL;
    const char* const right = "SIMCAN='can0 can1', or 'can0:left can1:right'";
    for (char* word = list != NULL ? strtok_r(list, BLANKS, &rest) : NULL; word != NULL;
         word = strtok_r(NULL, BLANKS, &rest)) {
        char* const colon = strchr(word, ':');
        if (colon != NULL) *colon = '\0';
        const char* const wrong = addLink(word, colon != NULL ? colon + 1 : "0");
        if (wrong != NULL) refuse("SIMCAN", word, wrong, right);
    }
    if (count == 0) refuse("SIMCAN", "", "names no interface", right);
    free(list);
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
    if (errno == ENODEV && !atomic_flag_test_and_set(&told)) {
        fprintf(stderr, "simcan: no interface %.*s, SIMCAN='%s'\n", IFNAMSIZ, name, setting());
    }
    errno = saved;
}

EXPORT unsigned if_nametoindex(const char* name) {
    const struct link* link = linkNamed(name);
    if (link != NULL) return (unsigned)indexOf(link);
    const unsigned index = REAL(if_nametoindex)(name);
    if (index == 0) reportMissing(name);
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
