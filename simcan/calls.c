// The calls on CAN sockets, and those that ask for interfaces.

#include <dlfcn.h>
#include <errno.h>
#include <limits.h>
#include <net/if_arp.h>
#include <netlink/cache.h>
#include <netlink/errno.h>
#include <netlink/route/link.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include "internal.h"

// An address of a raw socket, without what newer kernels append for other protocols.
enum { ADDRESS_SIZE = offsetof(struct sockaddr_can, can_addr) };

// What kernels since 6.0 set in the flags of every CAN FD frame; older headers do not name it.
enum { FD_FORMAT = 0x04 };

static int fail(int error) {
    errno = error;
    return -1;
}

EXPORT int socket(int domain, int type, int protocol) {
    if (domain != PF_CAN) return REAL(socket)(domain, type, protocol);
    if (failsNow(SIMCAN_SOCKET)) return -1;
    const int flags = type & (SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (protocol < 0 || protocol >= CAN_NPROTO) return fail(EINVAL);
    if (protocol != CAN_RAW) return fail(EPROTONOSUPPORT);
    if ((type & ~flags) != SOCK_RAW) return fail(EPROTOTYPE);
    const int fd = openLoopback(flags);
    if (fd < 0) return -1;
    const struct settings all = {.count = 1};  // one filter, which passes everything
    if (applyState(fd, (struct state){NO_LINK, LOOPBACK, 1}, &all) == 0 && joinBuses(fd) == 0)
        return fd;
    const int error = errno;
    close(fd);
    return fail(error);
}

EXPORT int bind(int fd, const struct sockaddr* address, socklen_t size) {
    struct state state = readState(fd);
    if (!state.isCan) return REAL(bind)(fd, address, size);
    if (size < ADDRESS_SIZE || address->sa_family != AF_CAN) return fail(EINVAL);
    const int index = ((const struct sockaddr_can*)address)->can_ifindex;
    struct link* const link = linkAt(index);
    if (index != 0 && link == NULL) return fail(ENODEV);
    if (link != NULL) {
        bringUp(link);
        link->room = (int)link->queue;
    }
    state.link = link != NULL ? (int)(link - links) : ALL_LINKS;
    struct settings settings;
    readSettings(fd, &settings);
    return applyState(fd, state, &settings);
}

// Fills an address that a caller asks for; `size` is how much room it has, and then what it is.
static void copyAddress(const struct link* link, void* address, socklen_t* size) {
    const struct sockaddr_can whole = {.can_family = AF_CAN,
                                       .can_ifindex = link != NULL ? indexOf(link) : 0};
    memcpy(address, &whole, *size < ADDRESS_SIZE ? *size : ADDRESS_SIZE);
    *size = ADDRESS_SIZE;
}

EXPORT int getsockname(int fd, struct sockaddr* address, socklen_t* size) {
    const struct state state = readState(fd);
    if (!state.isCan) return REAL(getsockname)(fd, address, size);
    copyAddress(linkOf(state), address, size);
    return 0;
}

EXPORT int connect(int fd, const struct sockaddr* address, socklen_t size) {
    return readState(fd).isCan ? fail(EOPNOTSUPP) : REAL(connect)(fd, address, size);
}

EXPORT int shutdown(int fd, int how) {
    return readState(fd).isCan ? fail(EOPNOTSUPP) : REAL(shutdown)(fd, how);
}

// Options

// CAN_RAW_LOOPBACK to CAN_RAW_JOIN_FILTERS are numbered as their bits are.
static int optionBit(int option) {
    const int isSwitch = option >= CAN_RAW_LOOPBACK && option <= CAN_RAW_JOIN_FILTERS;
    return isSwitch ? 1 << (option - CAN_RAW_LOOPBACK) : 0;
}

// True for options that hold what the simulated bus needs.
static int isTaken(int option) {
    return option == SO_RCVLOWAT || option == SO_BINDTODEVICE || option == SO_BINDTOIFINDEX ||
           option == SO_ATTACH_FILTER || option == SO_ATTACH_BPF || option == SO_DETACH_FILTER ||
           option == SO_LOCK_FILTER;
}

EXPORT int setsockopt(int fd, int level, int option, const void* value, socklen_t size) {
    struct state state = readState(fd);
    if (!state.isCan) return REAL(setsockopt)(fd, level, option, value, size);
    if (level == SOL_SOCKET) {
        if (isTaken(option)) return fail(ENOPROTOOPT);
        // Without effect: sockets share an address, and the kernel counts what the filter drops.
        if (option == SO_REUSEADDR || option == SO_RXQ_OVFL)
            return size >= sizeof(int) ? 0 : fail(EINVAL);
        return REAL(setsockopt)(fd, level, option, value, size);
    }
    if (level != SOL_CAN_RAW) return fail(EINVAL);
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
    return applyState(fd, state, &settings);
}

// Copies what a caller asks for into what room it has.
static int copyOut(void* value, socklen_t* size, const void* data, size_t dataSize) {
    if (*size > dataSize) *size = (socklen_t)dataSize;
    memcpy(value, data, *size);
    return 0;
}

EXPORT int getsockopt(int fd, int level, int option, void* value, socklen_t* size) {
    const struct state state = readState(fd);
    if (!state.isCan) return REAL(getsockopt)(fd, level, option, value, size);
    if (level == SOL_SOCKET) {
        const int number = option == SO_DOMAIN ? PF_CAN : option == SO_TYPE ? SOCK_RAW : 0;
        if (option == SO_DOMAIN || option == SO_TYPE || option == SO_PROTOCOL)
            return copyOut(value, size, &number, sizeof number);
        return REAL(getsockopt)(fd, level, option, value, size);
    }
    if (level != SOL_CAN_RAW) return fail(EINVAL);
    struct settings settings;
    readSettings(fd, &settings);
    if (option == CAN_RAW_FILTER) {
        const size_t needed = settings.count * sizeof *settings.filters;
        if (*size >= needed) return copyOut(value, size, settings.filters, needed);
        *size = (socklen_t)needed;
        return fail(ERANGE);
    }
    if (option == CAN_RAW_ERR_FILTER)
        return copyOut(value, size, &settings.errors, sizeof settings.errors);
    const int bit = optionBit(option);
    const int on = (state.options & bit) != 0;
    return bit != 0 ? copyOut(value, size, &on, sizeof on) : fail(ENOPROTOOPT);
}

// Frames out

static ssize_t sendPacket(int fd, const struct packet* packet, size_t size, int flags) {
    const ssize_t sent =
        sendToBus(fd, packet, FRAME_AT + size, flags & (MSG_DONTWAIT | MSG_NOSIGNAL));
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
    noteNext(fd, link);
    int room = -1;
    while (!link->isDown && (room = takeRoom(link)) == 0) {
        if (waitForRoom(fd, link, flags) != 0) return -1;
    }
    if (link->isDown) return fail(ENETDOWN);
    if (room > 0) return (ssize_t)size;  // taken, and never acknowledged

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
    const struct state state = readState(fd);
    if (!state.isCan) return REAL(sendmsg)(fd, message, flags);
    struct packet packet;
    const size_t size = gather(&packet, message->msg_iov, message->msg_iovlen);
    const struct sockaddr* const address = message->msg_namelen != 0 ? message->msg_name : NULL;
    return sendFrame(fd, state, &packet, size, flags, address, message->msg_namelen);
}

EXPORT ssize_t writev(int fd, const struct iovec* parts, int count) {
    const struct state state = readState(fd);
    if (!state.isCan) return REAL(writev)(fd, parts, count);
    if (count < 0 || count > IOV_MAX) return fail(EINVAL);
    struct packet packet;
    const size_t size = gather(&packet, parts, (size_t)count);
    return size == 0 ? 0 : sendFrame(fd, state, &packet, size, 0, NULL, 0);
}

static ssize_t sendBytes(int fd, struct state state, const void* data, size_t size, int flags,
                         const struct sockaddr* address, socklen_t addressSize) {
    struct packet packet;
    if (size <= sizeof packet.frame) memcpy(&packet.frame, data, size);
    return sendFrame(fd, state, &packet, size, flags, address, addressSize);
}

EXPORT ssize_t sendto(int fd, const void* data, size_t size, int flags,
                      const struct sockaddr* address, socklen_t addressSize) {
    const struct state state = readState(fd);
    if (!state.isCan) return REAL(sendto)(fd, data, size, flags, address, addressSize);
    return sendBytes(fd, state, data, size, flags, address, addressSize);
}

EXPORT ssize_t send(int fd, const void* data, size_t size, int flags) {
    const struct state state = readState(fd);
    if (!state.isCan) return REAL(send)(fd, data, size, flags);
    return sendBytes(fd, state, data, size, flags, NULL, 0);
}

EXPORT ssize_t write(int fd, const void* data, size_t size) {
    const struct state state = readState(fd);
    if (!state.isCan) return REAL(write)(fd, data, size);
    return sendBytes(fd, state, data, size, 0, NULL, 0);
}

EXPORT int sendmmsg(int fd, struct mmsghdr* messages, unsigned count, int flags) {
    return readState(fd).isCan ? fail(EOPNOTSUPP) : REAL(sendmmsg)(fd, messages, count, flags);
}

// Frames in

// The interface that a socket receives a frame on: its own. If it is bound to all of them, the
// sender's, or another one of the bus if that is unknown or the frame was for other links only.
static struct link* receivedOn(struct state state, const struct label* label) {
    struct link* found = linkOf(state);
    for (int i = 0; state.link == ALL_LINKS && i < linkCount(); i++) {
        const int isSenders = links[i].number == label->link;
        if (isSenders && label->audience != OTHER_LINKS) return &links[i];
        if (found == NULL && !isSenders && links[i].bus == label->bus) found = &links[i];
    }
    return found;
}

static ssize_t receive(int fd, struct state state, struct msghdr* message, int flags) {
    struct packet packet;
    struct iovec part = {&packet, sizeof packet};
    struct msghdr datagram = *message;
    datagram.msg_name = NULL;
    datagram.msg_iov = &part;
    datagram.msg_iovlen = 1;
    const ssize_t received = REAL(recvmsg)(fd, &datagram, flags & ~MSG_TRUNC);
    if (received < 0) return -1;
    if (received < (ssize_t)sizeof packet.label) return fail(EAGAIN);  // no frame: an error queue
    struct link* const link = receivedOn(state, &packet.label);
    if (received == sizeof packet.label) {
        if (link != NULL) noteReport(link, &packet.label);
        return fail(ENETDOWN);
    }
    const size_t size = (size_t)received - FRAME_AT;
    const uint8_t most = size == CAN_MTU ? CAN_MAX_DLEN : CANFD_MAX_DLEN;
    if (packet.frame.len > most) packet.frame.len = most;  // any program may send datagrams
    size_t taken = 0;
    for (size_t i = 0; i < message->msg_iovlen && taken < size; i++) {
        const struct iovec* const room = &message->msg_iov[i];
        const size_t fits = room->iov_len < size - taken ? room->iov_len : size - taken;
        memcpy(room->iov_base, (const char*)&packet.frame + taken, fits);
        taken += fits;
    }
    message->msg_controllen = datagram.msg_controllen;
    message->msg_flags = datagram.msg_flags | (taken < size ? MSG_TRUNC : 0);
    if (link != NULL && link->number == packet.label.link) message->msg_flags |= MSG_DONTROUTE;
    if (packet.label.audience == SENDER) message->msg_flags |= MSG_CONFIRM;
    if (message->msg_name != NULL) copyAddress(link, message->msg_name, &message->msg_namelen);
    return (ssize_t)taken;
}

EXPORT ssize_t recvmsg(int fd, struct msghdr* message, int flags) {
    const struct state state = readState(fd);
    if (!state.isCan) return REAL(recvmsg)(fd, message, flags);
    return receive(fd, state, message, flags);
}

EXPORT ssize_t recvfrom(int fd, void* data, size_t size, int flags, struct sockaddr* address,
                        socklen_t* addressSize) {
    const struct state state = readState(fd);
    if (!state.isCan) return REAL(recvfrom)(fd, data, size, flags, address, addressSize);
    if (address != NULL && addressSize == NULL) return fail(EFAULT);
    struct msghdr message = {.msg_iov = &(struct iovec){data, size}, .msg_iovlen = 1};
    message.msg_name = address;
    message.msg_namelen = address != NULL ? *addressSize : 0;
    const ssize_t received = receive(fd, state, &message, flags);
    if (address != NULL && received >= 0) *addressSize = message.msg_namelen;
    return received;
}

static ssize_t receiveBytes(int fd, struct state state, void* data, size_t size, int flags) {
    struct msghdr message = {.msg_iov = &(struct iovec){data, size}, .msg_iovlen = 1};
    return receive(fd, state, &message, flags);
}

EXPORT ssize_t recv(int fd, void* data, size_t size, int flags) {
    const struct state state = readState(fd);
    if (!state.isCan) return REAL(recv)(fd, data, size, flags);
    return receiveBytes(fd, state, data, size, flags);
}

EXPORT ssize_t read(int fd, void* data, size_t size) {
    const struct state state = readState(fd);
    if (!state.isCan) return REAL(read)(fd, data, size);
    return size == 0 ? 0 : receiveBytes(fd, state, data, size, 0);
}

EXPORT ssize_t readv(int fd, const struct iovec* parts, int count) {
    const struct state state = readState(fd);
    if (!state.isCan) return REAL(readv)(fd, parts, count);
    if (count < 0 || count > IOV_MAX) return fail(EINVAL);
    struct msghdr message = {.msg_iov = (struct iovec*)(uintptr_t)parts};  // NOLINT: for reading
    size_t room = 0;
    while (message.msg_iovlen < (size_t)count) room += parts[message.msg_iovlen++].iov_len;
    return room == 0 ? 0 : receive(fd, state, &message, 0);
}

EXPORT int recvmmsg(int fd, struct mmsghdr* messages, unsigned count, int flags,
                    struct timespec* limit) {
    return readState(fd).isCan ? fail(EOPNOTSUPP)
                               : REAL(recvmmsg)(fd, messages, count, flags, limit);
}

// Interfaces

EXPORT int ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    struct ifreq* const asked = argument;
    const int isAboutLink = request == SIOCGIFNAME || request == SIOCGIFINDEX ||
                            request == SIOCGIFFLAGS || request == SIOCGIFMTU ||
                            request == SIOCGIFHWADDR;
    if ((request == FIONREAD || request == TIOCOUTQ) && readState(fd).isCan) return fail(ENOTTY);
    if (!isAboutLink) return REAL(ioctl)(fd, request, argument);
    const struct link* const link =
        request == SIOCGIFNAME ? linkAt(asked->ifr_ifindex) : linkNamed(asked->ifr_name);
    if (link == NULL) {
        const int result = REAL(ioctl)(fd, request, argument);
        if (result != 0 && errno == ENODEV && request != SIOCGIFNAME)
            reportMissing(asked->ifr_name);
        return result;
    }
    struct ifreq loopback = {.ifr_name = "lo"};
    if (REAL(ioctl)(fd, SIOCGIFINDEX, &loopback) != 0) return -1;  // no socket
    if (request == SIOCGIFNAME) memcpy(asked->ifr_name, link->name, IFNAMSIZ);
    if (request == SIOCGIFINDEX) asked->ifr_ifindex = indexOf(link);
    if (request == SIOCGIFMTU) asked->ifr_mtu = CANFD_MTU;
    if (request == SIOCGIFHWADDR) asked->ifr_hwaddr = (struct sockaddr){.sa_family = ARPHRD_CAN};
    if (request == SIOCGIFFLAGS)
        asked->ifr_flags = IFF_NOARP | (link->isDown ? 0 : IFF_UP | IFF_RUNNING);
    return 0;
}

// Loaded on demand, as programs that do not use libnl must not be given it.
#define NL(name) ((__typeof__(&(name)))dlsym(library, #name))

EXPORT int rtnl_link_alloc_cache(struct nl_sock* socket, int family, struct nl_cache** result) {
    (void)socket;
    (void)family;
    if (failsNow(SIMCAN_CACHE)) return -errno;
    void* const library = dlopen("libnl-route-3.so.200", RTLD_LAZY);
    if (library == NULL) return -NLE_FAILURE;
    int error = NL(nl_cache_alloc_name)("route/link", result);
    for (int i = -1; error == 0 && i < linkCount(); i++) {
        struct rtnl_link* link = NL(rtnl_link_alloc)();
        if (link == NULL) {
            NL(nl_cache_free)(*result);
            return -NLE_NOMEM;
        }
        NL(rtnl_link_set_name)(link, i < 0 ? "lo" : links[i].name);
        NL(rtnl_link_set_ifindex)(link, i < 0 ? 1 : indexOf(&links[i]));
        NL(rtnl_link_set_arptype)(link, i < 0 ? ARPHRD_LOOPBACK : ARPHRD_CAN);
        error = NL(nl_cache_add)(*result, (struct nl_object*)link);
        NL(rtnl_link_put)(link);
    }
    dlclose(library);
    return error;
}

// Fortified programs call these; the C library's own do not go through the functions above.

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

#if __TIMESIZE == 32
// What programs call on 32-bit machines that are built with 64-bit time.

EXPORT int __recvmmsg64(int fd, struct mmsghdr* messages, unsigned count, int flags, void* limit) {
    __typeof__(recvmmsg)* const next = (__typeof__(recvmmsg)*)dlsym(RTLD_NEXT, "__recvmmsg64");
    return readState(fd).isCan ? fail(EOPNOTSUPP) : next(fd, messages, count, flags, limit);
}

// clang-format off
#define ALIAS(name, plain) EXPORT __typeof__(plain) name __attribute__((alias(#plain), copy(plain)));
ALIAS(__setsockopt64, setsockopt) ALIAS(__getsockopt64, getsockopt) ALIAS(__ioctl_time64, ioctl)
ALIAS(__sendmsg64, sendmsg) ALIAS(__sendmmsg64, sendmmsg) ALIAS(__recvmsg64, recvmsg)
// clang-format on
#endif
