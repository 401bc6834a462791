#include "simcan.h"

#include <dlfcn.h>
#include <errno.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <linux/filter.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netlink/cache.h>
#include <netlink/errno.h>
#include <netlink/route/link.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#define EXPORT __attribute__((visibility("default")))
// The function that one of this library stands in for.
#define REAL(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

enum { LINK_LIMIT = 32, FIRST_INDEX = 100, SOCKETS_PER_LINK = 4 };

struct link {
    char name[IFNAMSIZ];
    char bus[IFNAMSIZ];
};

static struct link links[LINK_LIMIT];
static int linkCount;
static pthread_once_t linksRead = PTHREAD_ONCE_INIT;
static atomic_int failures[SIMCAN_CACHE + 1];

static void readLinks(void) {
    const char* setting = getenv("SIMCAN");
    char* list = strdup(setting != NULL ? setting : "can0 can1");
    char* rest = NULL;
    for (char* word = list ? strtok_r(list, " ", &rest) : NULL; word && linkCount < LINK_LIMIT;
         word = strtok_r(NULL, " ", &rest)) {
        struct link* link = &links[linkCount++];
        const char* colon = strchr(word, ':');
        const int length = colon ? (int)(colon - word) : (int)strlen(word);
        snprintf(link->name, sizeof link->name, "%.*s", length, word);
        snprintf(link->bus, sizeof link->bus, "%s", colon ? colon + 1 : "0");
    }
    free(list);
}

// The simulated interface with this name, or NULL.
static const struct link* findLink(const char* name) {
    pthread_once(&linksRead, readLinks);
    for (int i = 0; i < linkCount; i++) {
        if (strcmp(links[i].name, name) == 0) return &links[i];
    }
    return NULL;
}

// True when the test asked for this call to fail, with errno set.
static int failsNow(enum simcan_Call call) {
    const int error = atomic_exchange(&failures[call], 0);
    if (error != 0) errno = error;
    return error != 0;
}

EXPORT void simcan_failNext(enum simcan_Call call, int error) {
    failures[call] = error;
}

// A socket's name in the abstract namespace: user, bus, interface and place on the interface.
static socklen_t makeAddress(struct sockaddr_un* address, const struct link* link, int place) {
    memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    const int length =
        snprintf(address->sun_path + 1, sizeof address->sun_path - 1, "simcan/%u/%s/%s/%d",
                 (unsigned)getuid(), link->bus, link->name, place);
    return (socklen_t)(offsetof(struct sockaddr_un, sun_path) + 1 + (size_t)length);
}

// The interface that a socket is bound to, with the socket's place on it; NULL for anything that is
// not a CAN socket.
static const struct link* linkOf(int fd, int* place) {
    struct sockaddr_un address;
    socklen_t size = sizeof address - 1;
    char name[IFNAMSIZ];
    memset(&address, 0, sizeof address);
    if (getsockname(fd, (struct sockaddr*)&address, &size) != 0 || address.sun_family != AF_UNIX ||
        sscanf(address.sun_path + 1, "simcan/%*u/%*[^/]/%15[^/]/%d", name, place) != 2) {
        return NULL;
    }
    return findLink(name);
}

// A socket that has not enabled CAN FD frames does not receive them: its filter drops what has
// their size. Its priority tells the mode to its own writes.
static int acceptCanFd(int fd, int canFd) {
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_LEN, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, CANFD_MTU, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, canFd ? UINT32_MAX : 0),
        BPF_STMT(BPF_RET | BPF_K, UINT32_MAX),
    };
    struct sock_fprog program;
    memset(&program, 0, sizeof program);
    program.len = sizeof filter / sizeof *filter;
    program.filter = filter;
    if (REAL(setsockopt)(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0)
        return -1;
    return REAL(setsockopt)(fd, SOL_SOCKET, SO_PRIORITY, &canFd, sizeof canFd);
}

static int acceptsCanFd(int fd) {
    int priority = 0;
    socklen_t size = sizeof priority;
    return getsockopt(fd, SOL_SOCKET, SO_PRIORITY, &priority, &size) == 0 && priority != 0;
}

static int isFrame(int fd, const void* data, size_t size) {
    const struct canfd_frame* frame = data;  // a classic frame has its length in the same place
    return (size == CAN_MTU && frame->len <= CAN_MAX_DLEN) ||
           (size == CANFD_MTU && frame->len <= CANFD_MAX_DLEN && acceptsCanFd(fd));
}

EXPORT int rtnl_link_alloc_cache(struct nl_sock* socket, int family, struct nl_cache** result) {
    (void)socket;
    (void)family;
    pthread_once(&linksRead, readLinks);
    if (failsNow(SIMCAN_CACHE)) return -errno;
    int error = nl_cache_alloc_name("route/link", result);
    for (int i = -1; error == 0 && i < linkCount; i++) {
        struct rtnl_link* link = rtnl_link_alloc();
        if (link == NULL) {
            nl_cache_free(*result);
            return -NLE_NOMEM;
        }
        rtnl_link_set_name(link, i < 0 ? "lo" : links[i].name);
        rtnl_link_set_ifindex(link, i < 0 ? 1 : FIRST_INDEX + i);
        rtnl_link_set_arptype(link, i < 0 ? ARPHRD_LOOPBACK : ARPHRD_CAN);
        error = nl_cache_add(*result, (struct nl_object*)link);
        rtnl_link_put(link);
    }
    return error;
}

EXPORT int socket(int domain, int type, int protocol) {
    if (domain != PF_CAN) return REAL(socket)(domain, type, protocol);
    if (failsNow(SIMCAN_SOCKET)) return -1;
    const int flags = type & (SOCK_CLOEXEC | SOCK_NONBLOCK);
    if ((type & ~flags) != SOCK_RAW || protocol != CAN_RAW) {
        errno = EPROTONOSUPPORT;
        return -1;
    }
    const int fd = REAL(socket)(AF_UNIX, SOCK_DGRAM | flags, 0);
    if (fd >= 0) acceptCanFd(fd, 0);
    return fd;
}

EXPORT int ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    const struct link* link =
        request == SIOCGIFINDEX ? findLink(((struct ifreq*)argument)->ifr_name) : NULL;
    if (link == NULL) return REAL(ioctl)(fd, request, argument);
    if (failsNow(SIMCAN_IOCTL)) return -1;
    ((struct ifreq*)argument)->ifr_ifindex = FIRST_INDEX + (int)(link - links);
    return 0;
}

EXPORT int bind(int fd, const struct sockaddr* address, socklen_t size) {
    if (address == NULL || address->sa_family != AF_CAN) return REAL(bind)(fd, address, size);
    if (failsNow(SIMCAN_BIND)) return -1;
    pthread_once(&linksRead, readLinks);
    const int index = ((const struct sockaddr_can*)address)->can_ifindex - FIRST_INDEX;
    if (index < 0 || index >= linkCount) {
        errno = ENODEV;
        return -1;
    }
    for (int place = 0; place < SOCKETS_PER_LINK; place++) {
        struct sockaddr_un own;
        const socklen_t length = makeAddress(&own, &links[index], place);
        if (REAL(bind)(fd, (struct sockaddr*)&own, length) == 0) return 0;
        if (errno != EADDRINUSE) return -1;
    }
    return -1;
}

EXPORT int setsockopt(int fd, int level, int option, const void* value, socklen_t size) {
    if (level != SOL_CAN_RAW) return REAL(setsockopt)(fd, level, option, value, size);
    if (failsNow(SIMCAN_SETSOCKOPT)) return -1;
    if (option != CAN_RAW_FD_FRAMES || size != sizeof(int)) {
        errno = option != CAN_RAW_FD_FRAMES ? ENOPROTOOPT : EINVAL;
        return -1;
    }
    return acceptCanFd(fd, *(const int*)value != 0);
}

EXPORT ssize_t write(int fd, const void* data, size_t size) {
    const int saved = errno;
    int ownPlace = 0;
    const struct link* own = linkOf(fd, &ownPlace);
    errno = saved;
    if (own == NULL) return REAL(write)(fd, data, size);
    if (failsNow(SIMCAN_WRITE)) return -1;
    if (!isFrame(fd, data, size)) {
        errno = EINVAL;
        return -1;
    }
    int full = 0;
    for (const struct link* link = links; link < links + linkCount; link++) {
        if (strcmp(link->bus, own->bus) != 0) continue;
        for (int place = 0; place < SOCKETS_PER_LINK; place++) {
            if (link == own && place == ownPlace) continue;
            struct sockaddr_un to;
            const socklen_t length = makeAddress(&to, link, place);
            if (sendto(fd, data, size, MSG_DONTWAIT, (struct sockaddr*)&to, length) < 0) {
                full |= errno == EAGAIN;
            }
        }
    }
    errno = full ? ENOBUFS : saved;
    return full ? -1 : (ssize_t)size;
}

EXPORT void simcan_linkDown(const char* interface) {
    const struct link* link = findLink(interface);
    const int fd = REAL(socket)(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    for (int place = 0; link != NULL && fd >= 0 && place < SOCKETS_PER_LINK; place++) {
        struct sockaddr_un to;
        const socklen_t length = makeAddress(&to, link, place);
        sendto(fd, "", 0, MSG_DONTWAIT, (struct sockaddr*)&to, length);
    }
    if (fd >= 0) close(fd);
}
