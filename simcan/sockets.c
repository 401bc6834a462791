// CAN sockets. All buses are one multicast group on the loopback interface: a CAN socket is a UDP
// socket that is bound to it, and a frame is one datagram, of which the kernel puts a copy into the
// queue of each socket whose filter passes it. So epoll, time stamps, queues and blocking are the
// kernel's own.
//
// What is set for a socket is kept in the socket itself, as a table in the program would lose it:
// descriptors are duplicated, inherited by children, and kept by programs that others execute.

#include <arpa/inet.h>
#include <errno.h>
#include <linux/can/raw.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "internal.h"

// A state is kept in the low-water mark, which datagrams have no use for. Its high bits tell CAN
// sockets from others.
enum { MARK = 0x5CA00000, MARK_BITS = 0x3FF };

static const struct settings initial = {.count = 1};  // one filter, which passes everything

// An address of a raw socket, without what newer kernels append for other protocols.
enum { ADDRESS_SIZE = offsetof(struct sockaddr_can, can_addr) };

// What kernels since 6.0 set in the flags of every CAN FD frame; older headers do not name it.
enum { FD_FORMAT = 0x04 };

static int fail(int error) {
    errno = error;
    return -1;
}

// False, and errno as it was, when it is no CAN socket.
static int readState(int fd, struct state* state) {
    const int saved = errno;
    int mark = 0;
    socklen_t size = sizeof mark;
    REAL(getsockopt)(fd, SOL_SOCKET, SO_RCVLOWAT, &mark, &size);
    errno = saved;
    if ((mark & ~MARK_BITS) != MARK) return 0;
    *state = (struct state){((mark & MARK_BITS) >> 4) + NO_LINK, mark & 0xF};
    return 1;
}

static int isCan(int fd) {
    return readState(fd, &(struct state){0});
}

struct link* linkOf(struct state state) {
    return state.link >= 0 && state.link < linkCount() ? &links[state.link] : NULL;
}

uint32_t numberOf(int fd) {
    uint64_t cookie = 0;
    socklen_t size = sizeof cookie;
    REAL(getsockopt)(fd, SOL_SOCKET, SO_COOKIE, &cookie, &size);
    return (uint32_t)cookie;
}

static int change(int fd, struct state state, const struct settings* settings) {
    const int mark = MARK | (state.link - NO_LINK) << 4 | state.options;
    if (attachFilter(fd, state, settings) != 0) return -1;
    return REAL(setsockopt)(fd, SOL_SOCKET, SO_RCVLOWAT, &mark, sizeof mark);
}

// A group of 239.0.0.0/8, which stays within the machine, and a port that is given to nobody else.
static struct sockaddr_in busAddress(void) {
    const uint64_t number = run();
    struct sockaddr_in address = {.sin_family = AF_INET};
    address.sin_addr.s_addr = htonl(0xEF000000u | (number & 0xFFFFFF));
    address.sin_port = htons((uint16_t)(61000 + (number >> 24) % 4536));
    return address;
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

static int joinBuses(int fd) {
    const struct sockaddr_in bus = busAddress();
    const struct ip_mreq group = {bus.sin_addr, {htonl(INADDR_LOOPBACK)}};
    const int shared = 1;
    if (REAL(setsockopt)(fd, SOL_SOCKET, SO_REUSEADDR, &shared, sizeof shared) != 0) return -1;
    if (REAL(setsockopt)(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) != 0) return -1;
    return REAL(bind)(fd, (const struct sockaddr*)&bus, sizeof bus);
}

EXPORT int socket(int domain, int type, int protocol) {
    if (domain != PF_CAN) return REAL(socket)(domain, type, protocol);
    if (failsNow(SIMCAN_SOCKET)) return -1;
    const int flags = type & (SOCK_CLOEXEC | SOCK_NONBLOCK);
    if ((type & ~flags) != SOCK_RAW || protocol != CAN_RAW) return fail(EPROTONOSUPPORT);
    const int fd = openLoopback(flags);
    if (fd < 0) return -1;
    const struct state unbound = {NO_LINK, LOOPBACK};
    if (change(fd, unbound, &initial) == 0 && joinBuses(fd) == 0) return fd;
    const int error = errno;
    close(fd);
    return fail(error);
}

static uint64_t now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (uint64_t)time.tv_sec * 1000000000 + (uint64_t)time.tv_nsec;
}

// Takes note of a report, unless it tells of another link that the socket was bound to before, or
// of a time before the link was brought up again.
static void noteReport(struct link* link, const struct label* report) {
    const uint64_t time = (uint64_t)report->socket << 32 | report->audience;
    if (report->link == link->number && time >= link->upSince) link->isDown = 1;
}

EXPORT int bind(int fd, const struct sockaddr* address, socklen_t size) {
    struct state state;
    if (!readState(fd, &state)) return REAL(bind)(fd, address, size);
    if (size < ADDRESS_SIZE || address->sa_family != AF_CAN) return fail(EINVAL);
    const int index = ((const struct sockaddr_can*)address)->can_ifindex;
    struct link* const link = linkAt(index);
    if (index != 0 && link == NULL) return fail(ENODEV);
    if (link != NULL) {  // who binds to it has brought it up
        link->upSince = now();
        link->isDown = 0;
    }
    state.link = link != NULL ? (int)(link - links) : ALL_LINKS;
    struct settings settings;
    readSettings(fd, &settings);
    return change(fd, state, &settings);
}

// Fills an address that a caller asks for; `size` is how much room it has, and then what it is.
static void tellAddress(const struct link* link, void* address, socklen_t* size) {
    const struct sockaddr_can whole = {.can_family = AF_CAN,
                                       .can_ifindex = link != NULL ? indexOf(link) : 0};
    memcpy(address, &whole, *size < ADDRESS_SIZE ? *size : ADDRESS_SIZE);
    *size = ADDRESS_SIZE;
}

EXPORT int getsockname(int fd, struct sockaddr* address, socklen_t* size) {
    struct state state;
    if (!readState(fd, &state)) return REAL(getsockname)(fd, address, size);
    tellAddress(linkOf(state), address, size);
    return 0;
}

EXPORT int connect(int fd, const struct sockaddr* address, socklen_t size) {
    return isCan(fd) ? fail(EOPNOTSUPP) : REAL(connect)(fd, address, size);
}

EXPORT int shutdown(int fd, int how) {
    return isCan(fd) ? fail(EOPNOTSUPP) : REAL(shutdown)(fd, how);
}

// Options

static int optionBit(int option) {
    switch (option) {
        case CAN_RAW_FD_FRAMES:
            return CAN_FD;
        case CAN_RAW_LOOPBACK:
            return LOOPBACK;
        case CAN_RAW_RECV_OWN_MSGS:
            return OWN_FRAMES;
        case CAN_RAW_JOIN_FILTERS:
            return JOINED;
        default:
            return 0;
    }
}

// True for options that hold what the simulated bus needs.
static int isTaken(int option) {
    return option == SO_RCVLOWAT || option == SO_BINDTODEVICE || option == SO_ATTACH_FILTER ||
           option == SO_ATTACH_BPF || option == SO_DETACH_FILTER;
}

EXPORT int setsockopt(int fd, int level, int option, const void* value, socklen_t size) {
    struct state state;
    if ((level != SOL_CAN_RAW && level != SOL_SOCKET) || !readState(fd, &state))
        return REAL(setsockopt)(fd, level, option, value, size);
    if (level == SOL_SOCKET) {
        return isTaken(option) ? fail(ENOPROTOOPT)
                               : REAL(setsockopt)(fd, level, option, value, size);
    }
    struct settings settings;
    readSettings(fd, &settings);
    const int bit = optionBit(option);
    if (option == CAN_RAW_FILTER) {
        if (size % sizeof *settings.filters != 0 || size > sizeof settings.filters)
            return fail(EINVAL);
        settings.count = (uint32_t)(size / sizeof *settings.filters);
        if (size > 0) memcpy(settings.filters, value, size);
    } else if (bit == 0 && option != CAN_RAW_ERR_FILTER) {
        return fail(ENOPROTOOPT);
    } else if (size != sizeof(int)) {
        return fail(EINVAL);
    } else if (bit != 0) {
        state.options = (state.options & ~bit) | (*(const int*)value != 0 ? bit : 0);
    } else {
        settings.errors = *(const can_err_mask_t*)value & CAN_ERR_MASK;
    }
    return change(fd, state, &settings);
}

// Copies what a caller asks for into what room it has.
static int give(void* value, socklen_t* size, const void* data, size_t dataSize) {
    if (*size > dataSize) *size = (socklen_t)dataSize;
    memcpy(value, data, *size);
    return 0;
}

EXPORT int getsockopt(int fd, int level, int option, void* value, socklen_t* size) {
    struct state state;
    if ((level != SOL_CAN_RAW && level != SOL_SOCKET) || !readState(fd, &state))
        return REAL(getsockopt)(fd, level, option, value, size);
    if (level == SOL_SOCKET) {
        const int number = option == SO_DOMAIN ? PF_CAN : option == SO_TYPE ? SOCK_RAW : CAN_RAW;
        if (option == SO_DOMAIN || option == SO_TYPE || option == SO_PROTOCOL)
            return give(value, size, &number, sizeof number);
        return REAL(getsockopt)(fd, level, option, value, size);
    }
    struct settings settings;
    readSettings(fd, &settings);
    if (option == CAN_RAW_FILTER) {
        const size_t needed = settings.count * sizeof *settings.filters;
        if (*size >= needed) return give(value, size, settings.filters, needed);
        *size = (socklen_t)needed;
        return fail(ERANGE);
    }
    if (option == CAN_RAW_ERR_FILTER)
        return give(value, size, &settings.errors, sizeof settings.errors);
    const int bit = optionBit(option);
    const int on = (state.options & bit) != 0;
    return bit != 0 ? give(value, size, &on, sizeof on) : fail(ENOPROTOOPT);
}

// Frames out

// Takes note of a report about the socket's own link, if that is what the next read gets.
static void noteNext(int fd, struct link* link) {
    int next = 0;
    struct label report;
    REAL(ioctl)(fd, FIONREAD, &next);
    if (link != NULL && next == sizeof report &&
        REAL(recv)(fd, &report, sizeof report, MSG_PEEK | MSG_DONTWAIT) == sizeof report) {
        noteReport(link, &report);
    }
}

static ssize_t sendPacket(int fd, const struct packet* packet, size_t size, int flags) {
    const struct sockaddr_in bus = busAddress();
    const ssize_t sent =
        REAL(sendto)(fd, packet, sizeof packet->label + size, flags & (MSG_DONTWAIT | MSG_NOSIGNAL),
                     (const struct sockaddr*)&bus, sizeof bus);
    return sent < 0 ? -1 : (ssize_t)size;
}

static ssize_t sendFrame(int fd, struct state state, struct packet* packet, size_t size, int flags,
                         const struct sockaddr* address, socklen_t addressSize) {
    if (failsNow(SIMCAN_WRITE)) return -1;
    struct link* link = linkOf(state);
    if (address != NULL) {
        if (addressSize < ADDRESS_SIZE || address->sa_family != AF_CAN) return fail(EINVAL);
        link = linkAt(((const struct sockaddr_can*)address)->can_ifindex);
    }
    if (link == NULL) return fail(ENXIO);
    const int fits =  // a classic frame has its length in the same place
        (size == CAN_MTU && packet->frame.len <= CAN_MAX_DLEN) ||
        (size == CANFD_MTU && packet->frame.len <= CANFD_MAX_DLEN && (state.options & CAN_FD) != 0);
    if (!fits) return fail(EINVAL);
    noteNext(fd, linkOf(state));
    if (link->isDown) return fail(ENETDOWN);

    if (size == CANFD_MTU) packet->frame.flags |= FD_FORMAT;
    packet->label = (struct label){link->bus, link->number, numberOf(fd), SENDER};
    if ((state.options & (LOOPBACK | OWN_FRAMES)) == (LOOPBACK | OWN_FRAMES)) {
        sendPacket(fd, packet, size, flags);  // first, so that no answer comes before it
    }
    packet->label.audience = (state.options & LOOPBACK) != 0 ? OTHERS : OTHER_LINKS;
    return sendPacket(fd, packet, size, flags);
}

// Puts a frame together. Its size, if need be one that no frame has.
static size_t gather(struct packet* packet, const struct iovec* parts, size_t count) {
    size_t size = 0;
    for (size_t i = 0; i < count; i++) {
        if (parts[i].iov_len > sizeof packet->frame - size) return SIZE_MAX;
        memcpy((char*)&packet->frame + size, parts[i].iov_base, parts[i].iov_len);
        size += parts[i].iov_len;
    }
    return size;
}

EXPORT ssize_t sendmsg(int fd, const struct msghdr* message, int flags) {
    struct state state;
    struct packet packet;
    if (!readState(fd, &state)) return REAL(sendmsg)(fd, message, flags);
    const size_t size = gather(&packet, message->msg_iov, message->msg_iovlen);
    const struct sockaddr* const address = message->msg_namelen != 0 ? message->msg_name : NULL;
    return sendFrame(fd, state, &packet, size, flags, address, message->msg_namelen);
}

EXPORT ssize_t writev(int fd, const struct iovec* parts, int count) {
    struct state state;
    struct packet packet;
    if (!readState(fd, &state)) return REAL(writev)(fd, parts, count);
    return sendFrame(fd, state, &packet, gather(&packet, parts, (size_t)count), 0, NULL, 0);
}

static ssize_t sendBytes(int fd, struct state state, const void* data, size_t size, int flags,
                         const struct sockaddr* address, socklen_t addressSize) {
    struct packet packet;
    if (size <= sizeof packet.frame) memcpy(&packet.frame, data, size);
    return sendFrame(fd, state, &packet, size, flags, address, addressSize);
}

EXPORT ssize_t sendto(int fd, const void* data, size_t size, int flags,
                      const struct sockaddr* address, socklen_t addressSize) {
    struct state state;
    if (!readState(fd, &state)) return REAL(sendto)(fd, data, size, flags, address, addressSize);
    return sendBytes(fd, state, data, size, flags, address, addressSize);
}

EXPORT ssize_t send(int fd, const void* data, size_t size, int flags) {
    struct state state;
    if (!readState(fd, &state)) return REAL(send)(fd, data, size, flags);
    return sendBytes(fd, state, data, size, flags, NULL, 0);
}

EXPORT ssize_t write(int fd, const void* data, size_t size) {
    struct state state;
    if (!readState(fd, &state)) return REAL(write)(fd, data, size);
    return sendBytes(fd, state, data, size, 0, NULL, 0);
}

EXPORT int sendmmsg(int fd, struct mmsghdr* messages, unsigned count, int flags) {
    return isCan(fd) ? fail(EOPNOTSUPP) : REAL(sendmmsg)(fd, messages, count, flags);
}

// Frames in

// The interface that a socket gets a datagram from: its own, or for one that is bound to all of
// them, the sender's, or the first on its bus.
static struct link* receivedFrom(struct state state, const struct label* label) {
    struct link* found = linkOf(state);
    for (int i = 0; found == NULL && i < linkCount(); i++) {
        if (links[i].number == label->link) found = &links[i];
    }
    for (int i = 0; found == NULL && i < linkCount(); i++) {
        if (links[i].bus == label->bus) found = &links[i];
    }
    return found;
}

// Takes a frame apart into `parts`; what else a caller asks for is in `message`.
static ssize_t receive(int fd, struct state state, const struct iovec* parts, size_t count,
                       struct msghdr* message, int flags) {
    struct packet packet;
    struct iovec part = {&packet, sizeof packet};
    struct msghdr datagram = *message;
    datagram.msg_name = NULL;
    datagram.msg_iov = &part;
    datagram.msg_iovlen = 1;
    const ssize_t received = REAL(recvmsg)(fd, &datagram, flags & ~MSG_TRUNC);
    if (received < 0) return -1;
    if (received < (ssize_t)sizeof packet.label) return fail(EAGAIN);  // no frame: an error queue
    struct link* const link = receivedFrom(state, &packet.label);
    if (received == sizeof packet.label) {
        if (link != NULL) noteReport(link, &packet.label);
        return fail(ENETDOWN);
    }
    const size_t size = (size_t)received - sizeof packet.label;
    size_t taken = 0;
    for (size_t i = 0; i < count && taken < size; i++) {
        const size_t fits = parts[i].iov_len < size - taken ? parts[i].iov_len : size - taken;
        memcpy(parts[i].iov_base, (const char*)&packet.frame + taken, fits);
        taken += fits;
    }
    message->msg_controllen = datagram.msg_controllen;
    message->msg_flags = datagram.msg_flags | (taken < size ? MSG_TRUNC : 0);
    if (link != NULL && link->number == packet.label.link) message->msg_flags |= MSG_DONTROUTE;
    if (packet.label.audience == SENDER) message->msg_flags |= MSG_CONFIRM;
    if (message->msg_name != NULL) tellAddress(link, message->msg_name, &message->msg_namelen);
    return (ssize_t)taken;
}

EXPORT ssize_t recvmsg(int fd, struct msghdr* message, int flags) {
    struct state state;
    if (!readState(fd, &state)) return REAL(recvmsg)(fd, message, flags);
    return receive(fd, state, message->msg_iov, message->msg_iovlen, message, flags);
}

EXPORT ssize_t recvfrom(int fd, void* data, size_t size, int flags, struct sockaddr* address,
                        socklen_t* addressSize) {
    struct state state;
    if (!readState(fd, &state)) return REAL(recvfrom)(fd, data, size, flags, address, addressSize);
    if (address != NULL && addressSize == NULL) return fail(EFAULT);
    const struct iovec part = {data, size};
    struct msghdr message = {.msg_name = address, .msg_namelen = address ? *addressSize : 0};
    const ssize_t received = receive(fd, state, &part, 1, &message, flags);
    if (address != NULL && received >= 0) *addressSize = message.msg_namelen;
    return received;
}

// Receives for a caller that asks for nothing else.
static ssize_t receiveParts(int fd, struct state state, const struct iovec* parts, size_t count,
                            int flags) {
    struct msghdr message = {.msg_name = NULL};
    return receive(fd, state, parts, count, &message, flags);
}

EXPORT ssize_t recv(int fd, void* data, size_t size, int flags) {
    struct state state;
    if (!readState(fd, &state)) return REAL(recv)(fd, data, size, flags);
    return receiveParts(fd, state, &(struct iovec){data, size}, 1, flags);
}

EXPORT ssize_t read(int fd, void* data, size_t size) {
    struct state state;
    if (!readState(fd, &state)) return REAL(read)(fd, data, size);
    return size == 0 ? 0 : receiveParts(fd, state, &(struct iovec){data, size}, 1, 0);
}

EXPORT ssize_t readv(int fd, const struct iovec* parts, int count) {
    struct state state;
    if (!readState(fd, &state)) return REAL(readv)(fd, parts, count);
    return receiveParts(fd, state, parts, (size_t)count, 0);
}

EXPORT int recvmmsg(int fd, struct mmsghdr* messages, unsigned count, int flags,
                    struct timespec* limit) {
    return isCan(fd) ? fail(EOPNOTSUPP) : REAL(recvmmsg)(fd, messages, count, flags, limit);
}

// What fortified programs call, which is no call of the above within the C library.

EXPORT ssize_t __read_chk(int fd, void* data, size_t size, size_t room) {
    return size <= room ? read(fd, data, size) : (abort(), -1);
}

EXPORT ssize_t __recv_chk(int fd, void* data, size_t size, size_t room, int flags) {
    return size <= room ? recv(fd, data, size, flags) : (abort(), -1);
}

EXPORT ssize_t __recvfrom_chk(int fd, void* data, size_t size, size_t room, int flags,
                              struct sockaddr* address, socklen_t* addressSize) {
    return size <= room ? recvfrom(fd, data, size, flags, address, addressSize) : (abort(), -1);
}

EXPORT void simcan_linkDown(const char* interface) {
    struct link* const link = linkNamed(interface);
    if (link == NULL) {
        if_nametoindex(interface);  // which says that there is none
        return;
    }
    const int fd = openLoopback(SOCK_CLOEXEC);
    if (fd < 0) return;
    link->isDown = 1;
    const uint64_t time = now();
    const struct label label = {link->bus, link->number, (uint32_t)(time >> 32), (uint32_t)time};
    const struct sockaddr_in bus = busAddress();
    REAL(sendto)(fd, &label, sizeof label, 0, (const struct sockaddr*)&bus, sizeof bus);
    close(fd);
}
