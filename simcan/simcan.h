/**
 * @file
 * A simulated CAN bus, for machines without an adapter or without CAN in the kernel.
 *
 * A program that is preloaded with libsimcan.so, or linked with it before anything else, finds the
 * interfaces that the environment variable SIMCAN names, beside lo: a list of NAME or NAME:BUS
 * separated by blanks, "can0 can1" when it is not set. BUS is any text without a blank, "0" by
 * default. There may be 32 interfaces; what is no name of one is reported on standard error.
 * Interfaces of one bus reach each other across all processes of one user in one network namespace
 * whose SIMCAN_RUN is the same text, or not set. A bus is no secret: any program of the machine
 * could listen or send.
 *
 * A frame goes to every other socket on the bus, on whichever interface, and CAN FD frames only to
 * those that enabled them. Each socket has a queue of about the kernel's size; what does not fit is
 * lost to that socket alone, and nobody is told. All that is as in the kernel. What differs:
 * - Links are never configured and need not be up. `system` is not touched: the `sudo` beside this
 *   library takes the place of the real one when its folder comes first in PATH.
 * - Frames arrive at once: no bit rate, no arbitration, no errors. A write never waits for room and
 *   never fails with ENOBUFS, unless ordered by simcan_failNext().
 * - When an interface is taken down, the next read of each socket on it fails with ENETDOWN, as in
 *   the kernel, but frames that came before are read first, and a socket whose queue is full is not
 *   told. That the link is down is not remembered: writes succeed, frames go on arriving.
 * - CAN sockets know socket, SIOCGIFINDEX, bind, CAN_RAW_FD_FRAMES, select or poll, read, write and
 *   close. Programs that want more (candump and the like) need a real or virtual interface.
 * - In a network namespace whose loopback interface is down, it is brought up, or nothing opens.
 *
 * An application's tests can have calls and commands fail that a healthy bus never fails: see
 * examples/failures.c. The functions are weak: a program that calls them need not be linked with
 * libsimcan.so, and finds them null where it is not preloaded. SIMCAN_SUDO_FAIL="WORD HOW N" in the
 * environment ends a command that has WORD among its arguments: "exit N" with status N, "kill N"
 * from signal N.
 */
#ifndef SIMCAN_H
#define SIMCAN_H

#ifdef __cplusplus
extern "C" {
#endif

/** The calls that can be made to fail. */
enum simcan_Call {
    SIMCAN_SOCKET,
    SIMCAN_IOCTL,
    SIMCAN_BIND,
    SIMCAN_SETSOCKOPT,
    SIMCAN_WRITE,
    SIMCAN_CACHE /**< rtnl_link_alloc_cache */
};

/**
 * Makes the next such call on the simulated bus fail, once.
 *
 * @param call  which call
 * @param error errno that it then sets; for SIMCAN_CACHE the libnl error, which it returns negated.
 *              0 takes the order back.
 */
__attribute__((weak)) void simcan_failNext(enum simcan_Call call, int error);

/**
 * Tells every socket on an interface, in all processes of this user, that its link went down: one
 * read of each fails with ENETDOWN.
 */
__attribute__((weak)) void simcan_linkDown(const char* interface);

#ifdef __cplusplus
}
#endif

#endif
