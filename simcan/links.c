// The simulated links, and the calls that list and name them.

#include <dlfcn.h>
#include <errno.h>
#include <net/if_arp.h>
#include <netlink/cache.h>
#include <netlink/errno.h>
#include <netlink/route/link.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "internal.h"

enum { FIRST_INDEX = 1000000 };  // which no real interface has

struct Real real;
struct link links[LINK_LIMIT];
static int count;
static uint64_t runNumber;
static pthread_once_t linksRead = PTHREAD_ONCE_INIT;
static atomic_int failures[SIMCAN_CACHE + 1];

__attribute__((constructor)) void findReal(void) {
// NOLINTNEXTLINE: a member takes no parentheses
#define X(name) real.name = (__typeof__(&name))dlsym(RTLD_NEXT, #name);
    STAND_INS(X)
#undef X
}

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

static void readLinks(void) {
    const char* text = getenv("SIMCAN_RUN");
    runNumber = hash(getuid(), text != NULL ? text : "");
    char* list = strdup(setting());
    char* rest = NULL;
    int found = 0;
    for (char* word = list ? strtok_r(list, " \t\n", &rest) : NULL; word != NULL;
         word = strtok_r(NULL, " \t\n", &rest)) {
        char* colon = strchr(word, ':');
        if (colon != NULL) *colon = '\0';
        if (*word == '\0' || strlen(word) >= IFNAMSIZ || found == LINK_LIMIT) {
            fprintf(stderr, "simcan: '%s' is no interface, or one too many\n", word);
            continue;
        }
        struct link* link = &links[found++];
        memcpy(link->name, word, strlen(word) + 1);
        link->bus = (uint32_t)hash(runNumber, colon != NULL ? colon + 1 : "0");
        link->number = (uint32_t)hash(link->bus, link->name);
    }
    free(list);
    count = found;
}

int linkCount(void) {
    pthread_once(&linksRead, readLinks);
    return count;
}

uint64_t run(void) {
    pthread_once(&linksRead, readLinks);
    return runNumber;
}

struct link* linkNamed(const char* name) {
    for (int i = 0; i < linkCount(); i++) {
        if (strcmp(links[i].name, name) == 0) return &links[i];
    }
    return NULL;
}

struct link* linkAt(int index) {
    const int position = index - FIRST_INDEX;
    return position >= 0 && position < linkCount() ? &links[position] : NULL;
}

int indexOf(const struct link* link) {
    return FIRST_INDEX + (int)(link - links);
}

int failsNow(enum simcan_Call call) {
    const int error = atomic_exchange(&failures[call], 0);
    if (error != 0) errno = error;
    return error != 0;
}

EXPORT void simcan_failNext(enum simcan_Call call, int error) {
    if (call <= SIMCAN_CACHE) failures[call] = error;
}

// Tells, once in a process, why the system does not know an interface either.
static void tellMissing(const char* name) {
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
    if (index == 0) tellMissing(name);
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

EXPORT int ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    struct ifreq* asked = argument;
    struct link* link = NULL;
    switch (request) {
        case SIOCGIFNAME:
            link = linkAt(asked->ifr_ifindex);
            break;
        case SIOCGIFINDEX:
        case SIOCGIFFLAGS:
        case SIOCGIFMTU:
        case SIOCGIFHWADDR:
            link = linkNamed(asked->ifr_name);
            break;
        default:
            return REAL(ioctl)(fd, request, argument);
    }
    if (link == NULL) {
        const int result = REAL(ioctl)(fd, request, argument);
        if (result != 0 && request != SIOCGIFNAME) tellMissing(asked->ifr_name);
        return result;
    }
    switch (request) {
        case SIOCGIFNAME:
            memcpy(asked->ifr_name, link->name, IFNAMSIZ);
            break;
        case SIOCGIFINDEX:
            asked->ifr_ifindex = indexOf(link);
            break;
        case SIOCGIFMTU:
            asked->ifr_mtu = CANFD_MTU;
            break;
        case SIOCGIFHWADDR:
            asked->ifr_hwaddr = (struct sockaddr){.sa_family = ARPHRD_CAN};
            break;
        default:
            asked->ifr_flags = IFF_NOARP | (link->isDown ? 0 : IFF_UP | IFF_RUNNING);
            break;
    }
    return 0;
}

EXPORT int rtnl_link_alloc_cache(struct nl_sock* socket, int family, struct nl_cache** result) {
    (void)socket;
    (void)family;
    if (failsNow(SIMCAN_CACHE)) return -errno;
    int error = nl_cache_alloc_name("route/link", result);
    for (int i = -1; error == 0 && i < linkCount(); i++) {
        struct rtnl_link* link = rtnl_link_alloc();
        if (link == NULL) {
            nl_cache_free(*result);
            return -NLE_NOMEM;
        }
        rtnl_link_set_name(link, i < 0 ? "lo" : links[i].name);
        rtnl_link_set_ifindex(link, i < 0 ? 1 : indexOf(&links[i]));
        rtnl_link_set_arptype(link, i < 0 ? ARPHRD_LOOPBACK : ARPHRD_CAN);
        error = nl_cache_add(*result, (struct nl_object*)link);
        rtnl_link_put(link);
    }
    return error;
}
