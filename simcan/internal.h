// What the sources of the simulated bus share. Each file calls only those above it here.
#ifndef SIMCAN_INTERNAL_H
#define SIMCAN_INTERNAL_H

#include <linux/can.h>
#include <linux/can/raw.h>
#include <linux/filter.h>
#include <net/if.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "simcan.h"

#define EXPORT __attribute__((visibility("default")))

// real.c: the next definition of each interposed function.
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

// links.c: the interfaces. Their numbers are the same in every process.
struct link {
    char name[IFNAMSIZ];
    uint32_t bus, number;
    _Atomic uint64_t upSince;  // when this process last bound a socket to it, in nanoseconds
    atomic_int isDown;         // as far as this process knows
    atomic_int queue, room;    // frames it takes while stalled, and how many more; else below 0
};

enum { LINK_LIMIT = 32 };
extern struct link links[LINK_LIMIT];

int linkCount(void);
// The simulated interface with this name or kernel's number, or NULL.
struct link* linkNamed(const char* name);
struct link* linkAt(int index);
int indexOf(const struct link* link);
// Identifies the user and SIMCAN_RUN.
uint64_t runNumber(void);
// Reports, once per process, an interface that is neither real nor simulated.
void reportMissing(const char* name);
// Calls `add` for each word of an environment variable, and exits with 2 if that returns 0.
void readWords(const char* variable, const char* otherwise, const char* separators,
               int (*add)(char* word), const char* right);
#define BLANKS " \t\n"

// bus.c: the multicast group that carries the frames of all buses.

// Who gets a datagram: sockets on other links of the bus, all but the sender, or the sender alone.
enum { OTHER_LINKS, OTHERS, SENDER };

// How a datagram begins. One without a frame reports that the link went down; its last two words
// then hold the time.
struct label {
    uint32_t bus, link, socket, audience;  // the first three are the sender's
};

struct packet {
    struct label label;
    struct canfd_frame frame;
};
enum { FRAME_AT = offsetof(struct packet, frame) };

// A UDP socket on the loopback interface: nothing leaves the machine or comes from outside.
int openLoopback(int flags);
int joinBuses(int fd);
ssize_t sendToBus(int fd, const void* data, size_t size, int flags);
void sendOnce(const void* data, size_t size);
// A process that binds a socket to a link has brought it up.
void bringUp(struct link* link);
void takeDown(struct link* link);
// Takes note of a report about this link, unless the link was brought up after it was sent.
void noteReport(struct link* link, const struct label* report);
// The same for a report that the socket's next read would get.
void noteNext(int fd, struct link* link);

// filter.c: compiles what is set for a socket into a filter program, without system calls.

struct state {
    int link, options;
    int isCan;  // if it is 0, the rest means nothing
};
enum { ALL_LINKS = LINK_LIMIT, NO_LINK = -1 };
enum { LOOPBACK = 1, OWN_FRAMES = 2, CAN_FD = 4, JOINED = 8 };

struct settings {
    uint32_t errors, count;
    struct can_filter filters[CAN_RAW_FILTER_MAX];
};

struct program {
    struct sock_filter code[2 + 7 * CAN_RAW_FILTER_MAX + 100];
    uint16_t length;
};

// The link that a socket is bound to, or NULL.
struct link* linkOf(struct state state);
void compileFilter(struct program* program, struct state state, uint32_t socket,
                   const struct settings* settings);
void compileReports(struct program* program);
void extractSettings(const struct program* program, struct settings* settings);

// state.c: what a socket keeps. readState leaves errno as it was.

struct state readState(int fd);
void readSettings(int fd, struct settings* settings);
int applyState(int fd, struct state state, const struct settings* settings);
int attachFilter(int fd, struct program* program);
// A number that no other socket has.
uint32_t numberOf(int fd);

// faults.c: what a test orders. Failures set errno.

int failsNow(enum simcan_Call call);
// Takes room for one frame. Returns the room that there was; below 0 if the link is not stalled.
int takeRoom(struct link* link);
// Waits until the stall or the link ends, as a write to a full queue does: 0, or -1 with errno set.
int waitForRoom(int fd, struct link* link, int flags);

#endif
