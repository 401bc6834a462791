/**
 * @file
 * A simulated CAN bus, for machines without an adapter or without CAN in the kernel.
 *
 * A program that is preloaded with libsimcan.so, or linked with it before anything else, finds the
 * interfaces that the environment variable SIMCAN names, at most 32, beside the machine's own.
 * simcan(1) describes the variables. Interfaces of one bus reach each other across all processes of
 * one user in one network namespace with the same SIMCAN_RUN. A bus is no secret: any program of
 * the machine could listen or send. Root in a user namespace shares root's buses.
 *
 * Raw CAN sockets are as the kernel's: addresses, filters, options, flags of messages, time stamps,
 * queues, who receives which frame, and errno. What differs:
 * - Links are never configured and are up from the start. The commands that would configure them
 *   are accepted by a `sudo` that comes first in PATH. Two programs may initialise one adapter;
 *   with a real one, the second gets "busy".
 * - Frames arrive at once: no bit rate, no arbitration, no errors. A write fails with ENOBUFS or
 *   waits for room only if a test orders it; poll and select always report room.
 * - A receive queue that is being read holds 194 to 256 frames, if net.core.rmem_default is 212992,
 *   instead of 222 to 278. Further frames are lost as silently.
 * - When an interface is taken down, the next read of each socket on it fails with ENETDOWN, as in
 *   the kernel, but frames that came before are read first, a socket whose queue is full is not
 *   notified, and no SO_ERROR is set. A process knows that a link is down once the report is at the
 *   head of the queue of one of its sockets. From then on SIOCGIFFLAGS says so and writes fail with
 *   ENETDOWN, until the process binds a socket to the link: it does not learn that another process
 *   brought it up again. Before it knows, its write on a stalled link does not end.
 * - A socket that is bound to all interfaces (index 0) receives a frame once, and not once on each
 *   interface of the bus. No socket receives on one interface what it sent on another itself.
 * - Joined filters pass an error frame once. The kernel repeats it if the error mask matches too.
 * - Filters take memory of the socket: 160 are possible where net.core.optmem_max is 20480.
 * - recvmmsg and sendmmsg fail with EOPNOTSUPP; SO_RCVLOWAT, SO_BINDTODEVICE, SO_BINDTOIFINDEX and
 *   the program's own socket filters with ENOPROTOOPT; CAN_BCM, CAN_ISOTP, CAN_J1939 with
 *   EPROTONOSUPPORT; getpeername with ENOTCONN. CAN XL is unknown. SO_REUSEADDR is ignored, and so
 *   is SO_RXQ_OVFL: lost frames are not counted. Transmit time stamps are wrong.
 * - Invalid pointers may crash the program instead of returning EFAULT.
 * - Outside the bus are static programs, others that make system calls without the C library, and
 *   libraries in a namespace of their own (dlmopen). io_uring, splice, preadv2, pwritev2, streams
 *   (fdopen) and a child that is not preloaded read and write the bus's datagrams, not frames.
 * - if_nameindex lists the simulated interfaces after the machine's own. libnl's list holds them
 * and lo; `ip link` shows none of them.
 * - Options of one socket are set by one thread at a time. Opening and setting take 40 KiB of
 *   stack. Each read or write of any descriptor costs one more system call.
 * - In a network namespace whose loopback interface is down, it is brought up, or nothing opens.
 *
 * The functions below, and variables, order what a healthy bus never shows. They are weak: a
 * program that calls them need not be linked with libsimcan.so, and finds them null without it.
 */
#ifndef SIMCAN_H
#define SIMCAN_H

#ifdef __cplusplus
extern "C" {
#endif

/** The calls that can be made to fail. */
enum simcan_Call {
    SIMCAN_SOCKET, /**< socket, for a CAN socket */
    SIMCAN_WRITE,  /**< what sends a frame: write, send, sendto, sendmsg, writev */
    SIMCAN_CACHE   /**< rtnl_link_alloc_cache */
};

/**
 * Makes the next such call of this process on the simulated bus fail, once. Any thread may call it.
 *
 * @param call  which call
 * @param error errno that it then sets; for SIMCAN_CACHE the libnl error, which it returns negated.
 *              0 takes the order back. A wrong call or error is reported on standard error.
 */
__attribute__((weak)) void simcan_failNext(enum simcan_Call call, int error);

/**
 * Tells every socket on an interface, in all processes of this user, that its link went down: one
 * read of each fails with ENETDOWN. Any thread may call it. One line on standard error says so if
 * no such interface is simulated.
 *
 * @param interface its name, such as "can0"
 */
__attribute__((weak)) void simcan_linkDown(const char* interface);

/**
 * Lets nobody acknowledge on an interface, for this process: its next frames are taken and reach
 * nobody. Then a write waits for room, as on a controller without a partner, until the stall ends,
 * the link goes down (ENETDOWN), a signal is handled (EINTR, unless SA_RESTART) or SO_SNDTIMEO has
 * passed (EAGAIN); a non-blocking one returns EAGAIN. Binding a socket to the interface empties the
 * queue. Any thread may call it. A name that is not simulated is reported as by simcan_linkDown.
 *
 * @param interface its name, such as "can0"
 * @param frames    how many are taken; a USB adapter's driver took 288. Below 0 ends the stall.
 */
__attribute__((weak)) void simcan_stall(const char* interface, int frames);

#ifdef __cplusplus
}
#endif

#endif
