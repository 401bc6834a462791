/**
 * @file
 * A simulated CAN bus, for machines without an adapter or without CAN in the kernel.
 *
 * A program that is preloaded with libsimcan.so, or linked with it before anything else, finds the
 * interfaces that the environment variable SIMCAN names, beside lo: a list of NAME or NAME:BUS
 * separated by blanks, "can0 can1" when it is not set; BUS is any word, "0" by default. At most 32
 * interfaces count. Interfaces of one bus reach each other across all processes of one user.
 *
 * A frame goes to every other socket on the bus, and CAN FD frames only to those that enabled them,
 * as in the kernel. What differs from a real bus:
 * - Links need not be up, and are never configured; `system` is not touched. The `sudo` beside this
 *   library takes the place of the real one when its folder comes first in PATH.
 * - When a receiver's queue is full (some ten frames) the write fails with ENOBUFS, although other
 *   receivers may have got the frame. Without receivers the frame is taken and dropped.
 * - Taking an interface down wakes its sockets with a datagram of no bytes, not with an error.
 * - Four sockets fit on an interface; binding one more fails with EADDRINUSE.
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
void simcan_failNext(enum simcan_Call call, int error);

/** Wakes every socket bound to an interface, in all processes of this user: its link went down. */
void simcan_linkDown(const char* interface);

#ifdef __cplusplus
}
#endif

#endif
