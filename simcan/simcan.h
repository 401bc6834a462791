/**
 * @file
 * A simulated CAN bus, for machines without an adapter or without CAN in the kernel.
 *
 * A program that is preloaded with libsimcan.so, or linked with it before anything else, finds the
 * interfaces that the environment variable SIMCAN names, beside the machine's own: a list of NAME
 * or NAME:BUS separated by blanks, "can0 can1" when it is not set. BUS is "0" by default. There may
 * be 32 interfaces. Interfaces of one bus reach each other across all processes of one user in one
 * network namespace whose SIMCAN_RUN is the same text, or not set. A bus is no secret: any program
 * of the machine could listen or send.
 *
 * Raw CAN sockets are as the kernel's: addresses, filters, options, flags of messages, time stamps,
 * queues, who receives which frame, and errno. What differs:
 * - Links are never configured and are up from the start. The commands that would configure them
 *   are accepted by a `sudo` beside this library, whose folder comes first in PATH.
 * - Frames arrive at once: no bit rate, no arbitration, no errors. A write never waits for room and
 *   never fails with ENOBUFS, unless ordered by simcan_failNext().
 * - When an interface is taken down, the next read of each socket on it fails with ENETDOWN, as in
 *   the kernel, but frames that came before are read first, and a socket whose queue is full is not
 *   told. A process knows that a link is down once the report is the next that one of its sockets
 *   has to read. From then on SIOCGIFFLAGS says so and writes fail with ENETDOWN, until the process
 *   binds a socket to the link. Other processes know nothing of that.
 * - A socket that is bound to all interfaces (index 0) receives a frame once, and not once on each
 *   interface of the bus. No socket receives on one interface what it sent on another itself.
 * - Filters take memory of the socket: 160 are possible where net.core.optmem_max is 20480.
 * - recvmmsg and sendmmsg fail with EOPNOTSUPP; SO_RCVLOWAT, SO_BINDTODEVICE and socket filters of
 *   one's own with ENOPROTOOPT; CAN_BCM, CAN_ISOTP, CAN_J1939 with EPROTONOSUPPORT, as in a kernel
 *   without these modules. getpeername gives ENOTCONN. CAN XL is unknown.
 * - A pointer that is no good may crash the program, where the kernel gives EFAULT.
 * - Outside the bus are static programs, others that make system calls without the C library, and
 *   libraries in a namespace of their own (dlmopen). if_nameindex shows the simulated interfaces
 *   behind the machine's own, libnl's rtnl_link_alloc_cache them and lo, netlink (`ip link`) none.
 * - SO_RXQ_OVFL also counts what the filter has dropped. Time stamps of what is sent are not those
 *   of frames. A link that goes down makes a socket readable, and sets no SO_ERROR.
 * - Options of one socket are set by one thread at a time. Opening and setting take 40 KiB of
 * stack.
 * - In a network namespace whose loopback interface is down, it is brought up, or nothing opens.
 *
 * An application's tests can have calls and commands fail that a healthy bus never fails:
 * docs/testing.md shows how. The functions are weak: a program that calls them need not be linked
 * with libsimcan.so, and finds them null where it is not preloaded.
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
 *              0 takes the order back.
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

#ifdef __cplusplus
}
#endif

#endif
