#include "simcan.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <linux/filter.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <netlink/cache.h>
#include <netlink/errno.h>
#include <netlink/route/link.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

// A bus is a multicast group on the loopback interface: a CAN socket is a UDP socket bound to the
// group, and a frame is one datagram to it, of which the kernel puts a copy into every queue.
//
// Each socket sends from a loopback address of its own, by which its filter knows its own frames.
// The filter decides too whether it receives CAN FD frames, and which of the short datagrams that
// say that a link went down are meant for it: they hold the link's number.

#define EXPORT __attribute__((visibility("default")))
// The function that one of this library stands in for. NOLINTNEXTLINE: no type takes parentheses
#define REAL(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

enum { LINK_LIMIT = 32, FIRST_INDEX = 100, LOOPBACK_INDEX = 1 };
enum { UDP_HEADER = 8, SOURCE = SKF_NET_OFF + 12 };  // where a filter finds a datagram's parts

struct link {
    char name[IFNAMSIZ];
    struct sockaddr_in bus;
};

static struct link links[LINK_LIMIT];
static int linkCount;
static pthread_once_t linksRead = PTHREAD_ONCE_INIT;
static atomic_int failures[SIMCAN_CACHE + 1];

// FNV-1a. The same in every process, so that all find the same bus and link.
static uint64_t hash(uint64_t seed, const char* text) {
    uint64_t value = 0xCBF29CE484222325u ^ seed;
    for (; *text != '\0'; text++) value = (value ^ (unsigned char)*text) * 0x100000001B3u;
    return value ^ value >> 32;
}

// A group of 239.0.0.0/8, which stays within the machine, and a port that is given to nobody else.
static struct sockaddr_in busAddress(const char* name) {
    const char* run = getenv("SIMCAN_RUN");
    const uint64_t number = hash(hash(getuid(), run != NULL ? run : ""), name);
    struct sockaddr_in address = {.sin_family = AF_INET};
    address.sin_addr.s_addr = htonl(0xEF000000u | (number & 0xFFFFFF));
    address.sin_port = htons((uint16_t)(61000 + (number >> 24) % 4536));
    return address;
}

static void readLinks(void) {
    const char* setting = getenv("SIMCAN");
    char* list = strdup(setting != NULL ? setting : "can0 can1");
    char* rest = NULL;
    for (char* word = list ? strtok_r(list, " ", &rest) : NULL; word != NULL;
         word = strtok_r(NULL, " ", &rest)) {
        char* colon = strchr(word, ':');
        if (colon != NULL) *colon = '\0';
        if (*word == '\0' || strlen(word) >= IFNAMSIZ || strchr(word, '/') != NULL) {
            fprintf(stderr, "simcan: '%s' is no name of an interface\n", word);
        } else if (linkCount == LINK_LIMIT) {
            fprintf(stderr, "simcan: '%s' is one interface too many\n", word);
        } else {
            struct link* link = &links[linkCount++];
            memcpy(link->name, word, strlen(word) + 1);
            link->bus = busAddress(colon != NULL ? colon + 1 : "0");
        }
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

// What a socket's filter depends on: the link that it is bound to, -1 if none, and whether it wants
// CAN FD frames. Kept in its low-water mark, which datagrams have no use for.
struct mode {
    int link;
    int canFd;
};

static struct mode modeOf(int fd) {
    int mark = 0;
    socklen_t size = sizeof mark;
    getsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &mark, &size);
    return (struct mode){mark / 2 - 2, mark % 2};
}

// The address that a socket's frames come from.
static uint32_t source(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 ? 0x7F000000u | ((uint32_t)status.st_ino & 0xFFFFFF) : 0;
}

static int setMode(int fd, struct mode mode) {
    const uint32_t link = mode.link < 0 ? 0 : (uint32_t)hash(0, links[mode.link].name);
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_LEN, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, UDP_HEADER + sizeof link, 0, 2),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, UDP_HEADER),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, link, 4, 5),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, UDP_HEADER + CAN_MTU, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, mode.canFd ? UDP_HEADER + CANFD_MTU : 0, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, (uint32_t)SOURCE),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, source(fd), 1, 0),
        BPF_STMT(BPF_RET | BPF_K, UINT32_MAX),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const struct sock_fprog program = {sizeof filter / sizeof *filter, filter};
    const int mark = 2 * (mode.link + 2) + mode.canFd;
    if (REAL(setsockopt)(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0)
        return -1;
    return REAL(setsockopt)(fd, SOL_SOCKET, SO_RCVLOWAT, &mark, sizeof mark);
}

// True for a bound CAN socket, with the address of its bus. Leaves errno alone.
static int findBus(int fd, struct sockaddr_in* bus) {
    const int saved = errno;
    socklen_t size = sizeof *bus;
    *bus = (struct sockaddr_in){0};
    getsockname(fd, (struct sockaddr*)bus, &size);
    errno = saved;
    for (int i = 0; i < linkCount; i++) {
        if (memcmp(bus, &links[i].bus, sizeof *bus) == 0) return 1;
    }
    return 0;
}

static int isFrame(int fd, const void* data, size_t size) {
    const struct canfd_frame* frame = data;  // a classic frame has its length in the same place
    return (size == CAN_MTU && frame->len <= CAN_MAX_DLEN) ||
           (size == CANFD_MTU && frame->len <= CANFD_MAX_DLEN && modeOf(fd).canFd);
}

// In a network namespace made just now, the loopback interface is down.
static void raiseLoopback(int fd) {
    struct ifreq request = {.ifr_name = "lo"};
    if (REAL(ioctl)(fd, SIOCGIFFLAGS, &request) != 0 || (request.ifr_flags & IFF_UP) != 0) return;
    request.ifr_flags |= IFF_UP;
    REAL(ioctl)(fd, SIOCSIFFLAGS, &request);
}

// A socket on the loopback interface alone: nothing leaves the machine, nothing comes from outside.
static int openLoopback(int flags) {
    const int fd = REAL(socket)(AF_INET, SOCK_DGRAM | flags, 0);
    if (fd < 0) return -1;
    raiseLoopback(fd);
    if (REAL(setsockopt)(fd, SOL_SOCKET, SO_BINDTODEVICE, "lo", sizeof "lo" - 1) == 0) return fd;
    close(fd);
    return -1;
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
    const int fd = openLoopback(flags);
    if (fd >= 0) setMode(fd, (struct mode){.link = -1});
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
    const struct sockaddr_in* bus = &links[index].bus;
    const struct ip_mreq group = {bus->sin_addr, {htonl(INADDR_LOOPBACK)}};
    const int shared = 1;
    if (REAL(setsockopt)(fd, SOL_SOCKET, SO_REUSEADDR, &shared, sizeof shared) != 0 ||
        REAL(setsockopt)(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) != 0 ||
        setMode(fd, (struct mode){index, modeOf(fd).canFd}) != 0) {
        return -1;
    }
    return REAL(bind)(fd, (const struct sockaddr*)bus, sizeof *bus);
}

EXPORT int setsockopt(int fd, int level, int option, const void* value, socklen_t size) {
    if (level != SOL_CAN_RAW) return REAL(setsockopt)(fd, level, option, value, size);
    if (failsNow(SIMCAN_SETSOCKOPT)) return -1;
    if (option != CAN_RAW_FD_FRAMES || size != sizeof(int)) {
        errno = option != CAN_RAW_FD_FRAMES ? ENOPROTOOPT : EINVAL;
        return -1;
    }
    return setMode(fd, (struct mode){modeOf(fd).link, *(const int*)value != 0});
}

EXPORT ssize_t write(int fd, const void* data, size_t size) {
    struct sockaddr_in bus;
    if (!findBus(fd, &bus)) return REAL(write)(fd, data, size);
    if (failsNow(SIMCAN_WRITE)) return -1;
    if (!isFrame(fd, data, size)) {
        errno = EINVAL;
        return -1;
    }
    char copy[CANFD_MTU];
    memcpy(copy, data, size);
    struct iovec frame = {copy, size};
    union {
        char space[CMSG_SPACE(sizeof(struct in_pktinfo))];
        struct cmsghdr header;
    } from = {{0}};
    from.header = (struct cmsghdr){CMSG_LEN(sizeof(struct in_pktinfo)), IPPROTO_IP, IP_PKTINFO};
    const struct in_pktinfo info = {LOOPBACK_INDEX, {htonl(source(fd))}, {0}};
    memcpy(CMSG_DATA(&from.header), &info, sizeof info);
    const struct msghdr message = {&bus, sizeof bus, &frame, 1, &from, sizeof from, 0};
    return sendmsg(fd, &message, 0);
}

EXPORT ssize_t read(int fd, void* data, size_t size) {
    const ssize_t count = REAL(read)(fd, data, size);
    struct sockaddr_in bus;
    if (count != sizeof(uint32_t) || !findBus(fd, &bus)) return count;
    errno = ENETDOWN;
    return -1;
}

EXPORT void simcan_linkDown(const char* interface) {
    const struct link* link = findLink(interface);
    const int fd = link != NULL ? openLoopback(SOCK_CLOEXEC) : -1;
    if (fd < 0) return;
    const uint32_t number = htonl((uint32_t)hash(0, link->name));
    sendto(fd, &number, sizeof number, 0, (const struct sockaddr*)&link->bus, sizeof link->bus);
    close(fd);
}
