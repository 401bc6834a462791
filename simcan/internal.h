// What the sources of the simulated bus share: its links, what a CAN socket keeps, and the system's
// own functions.
#ifndef SIMCAN_INTERNAL_H
#define SIMCAN_INTERNAL_H

#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <stdatomic.h>
#include <stdint.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "simcan.h"

#define EXPORT __attribute__((visibility("default")))

// The functions that this library stands in for, as those who were loaded behind it have them.
// clang-format off
#define STAND_INS(X) \
    X(socket) X(bind) X(connect) X(shutdown) X(getsockname) X(getsockopt) X(setsockopt) X(ioctl) \
    X(write) X(writev) X(send) X(sendto) X(sendmsg) X(sendmmsg) \
    X(read) X(readv) X(recv) X(recvfrom) X(recvmsg) X(recvmmsg) \
    X(if_nametoindex) X(if_indextoname) X(if_nameindex)
// clang-format on
// NOLINTNEXTLINE: a declaration takes no parentheses
#define X(name) __typeof__(name)* name;
extern struct Real {
    STAND_INS(X)
} real;
#undef X

// Found once, when the library is loaded: a signal handler may write.
void findReal(void);
#define REAL(name) (real.name != NULL ? real.name : (findReal(), real.name))

// The numbers are the same in every process: what a datagram says is understood by all.
struct link {
    char name[IFNAMSIZ];
    uint32_t bus;
    uint32_t number;
    _Atomic uint64_t upSince;  // when this process bound a socket to it, in nanoseconds
    atomic_int isDown;         // as far as this process was told, and until it binds a socket to it
};

enum { LINK_LIMIT = 32 };
extern struct link links[LINK_LIMIT];

// How many there are. Reads them when it is called first, as do those below.
int linkCount(void);
// The simulated interface with this name or kernel's number, or NULL.
struct link* linkNamed(const char* name);
struct link* linkAt(int index);
int indexOf(const struct link* link);

// What tells the buses of one user and SIMCAN_RUN from those of others.
uint64_t run(void);

// True when the test asked for this call to fail, with errno set.
int failsNow(enum simcan_Call call);

// Who gets a datagram: sockets on other links of the bus, all but the sender, or the sender alone.
enum { OTHER_LINKS, OTHERS, SENDER };

// How a datagram begins. One that holds no frame says that the link went down, and has the time
// of that in the place of the last two words.
struct label {
    uint32_t bus, link;
    uint32_t socket;  // which sent it
    uint32_t audience;
};

struct packet {
    struct label label;
    struct canfd_frame frame;
};

// What each call on a CAN socket needs: its link, and what is switched on.
struct state {
    int link;
    int options;
};
enum { ALL_LINKS = LINK_LIMIT, NO_LINK = -1 };
enum { CAN_FD = 1, LOOPBACK = 2, OWN_FRAMES = 4, JOINED = 8 };

// What is looked at only when it changes.
struct settings {
    uint32_t errors;
    uint32_t count;
    struct can_filter filters[CAN_RAW_FILTER_MAX];
};

// The link that a socket is bound to, or NULL.
struct link* linkOf(struct state state);
// A number that no other socket has.
uint32_t numberOf(int fd);

// The settings are kept in the filter.
int attachFilter(int fd, struct state state, const struct settings* settings);
void readSettings(int fd, struct settings* settings);

#endif
