// All buses are one multicast group on the loopback interface: a CAN socket is a UDP socket that is
// bound to it, and a frame is one datagram, which the kernel copies into the queue of each socket
// whose filter passes it. So epoll, time stamps, queues and blocking are the kernel's own.

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <time.h>

#include "internal.h"

_Static_assert(FRAME_AT == sizeof(struct label), "a frame follows its label without a gap");

// A group of 239.0.0.0/8, which stays within the machine, and a port that is given to nobody else.
static struct sockaddr_in busAddress(void) {
    const uint64_t number = runNumber();
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

int openLoopback(int flags) {
    const int fd = REAL(socket)(AF_INET, SOCK_DGRAM | flags, 0);
    if (fd < 0) return -1;
    raiseLoopback(fd);
    if (REAL(setsockopt)(fd, SOL_SOCKET, SO_BINDTODEVICE, "lo", sizeof "lo" - 1) == 0) return fd;
    close(fd);
    return -1;
}

int joinBuses(int fd) {
    const struct sockaddr_in bus = busAddress();
    const struct ip_mreq group = {bus.sin_addr, {htonl(INADDR_LOOPBACK)}};
    const int shared = 1;
    if (REAL(setsockopt)(fd, SOL_SOCKET, SO_REUSEADDR, &shared, sizeof shared) != 0) return -1;
    if (REAL(setsockopt)(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) != 0) return -1;
    if (REAL(bind)(fd, (const struct sockaddr*)&bus, sizeof bus) == 0) return 0;
    if (errno == EADDRINUSE) {
        fprintf(stderr,
                "simcan: another program uses UDP port %d: set SIMCAN_RUN to another text\n",
                ntohs(bus.sin_port));
        errno = EADDRINUSE;
    }
    return -1;
}

ssize_t sendToBus(int fd, const void* data, size_t size, int flags) {
    const struct sockaddr_in bus = busAddress();
    return REAL(sendto)(fd, data, size, flags, (const struct sockaddr*)&bus, sizeof bus);
}

void sendOnce(const void* data, size_t size) {
    const int fd = openLoopback(SOCK_CLOEXEC);
    if (fd < 0) return;
    sendToBus(fd, data, size, 0);
    close(fd);
}

static uint64_t now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (uint64_t)time.tv_sec * 1000000000 + (uint64_t)time.tv_nsec;
}

void bringUp(struct link* link) {
    link->upSince = now();
    link->isDown = 0;
}

void takeDown(struct link* link) {
    link->isDown = 1;
    const uint64_t time = now();
    const struct label report = {link->bus, link->number, (uint32_t)(time >> 32), (uint32_t)time};
    sendOnce(&report, sizeof report);
}

void noteReport(struct link* link, const struct label* report) {
    const uint64_t time = (uint64_t)report->socket << 32 | report->audience;
    if (report->link == link->number && time >= link->upSince) link->isDown = 1;
}

void noteNext(int fd, struct link* link) {
    int next = 0;
    struct label report;
    REAL(ioctl)(fd, FIONREAD, &next);
    if (next == sizeof report &&
        REAL(recv)(fd, &report, sizeof report, MSG_PEEK | MSG_DONTWAIT) == sizeof report) {
        noteReport(link, &report);
    }
}
