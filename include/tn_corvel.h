/**
 * @file
 * Access to USB-to-CAN adapters of the Corvel kind, which the kernel exposes as the network
 * interfaces can0, can1 and so on.
 *
 * An application initialises an adapter with corvel_initDLL(), then sends and receives single
 * frames with corvel_writeMessage() and corvel_readMessage(), and ends with corvel_freeDLL(). All
 * four name the adapter by its device index: the number N of its interface canN.
 *
 * Threads: any thread may call any function, for any index. A read that waits holds up no other
 * call but a second read on the same device. The caller's duties: for one index, an initialisation
 * must not run at the same time as another initialisation or a release; no calls from signal
 * handlers; no thread is cancelled inside a call; and after fork, a child of a process with threads
 * makes no call before it executes another program.
 *
 * A release may meet reads and writes of other threads. It does not wait for them, and they never
 * touch what the application opens meanwhile. A waiting read comes back with CORVEL_NO_FRAME as
 * soon as the link is down, rather than after its time-out; a write that waits for room does so
 * too, with CORVEL_NOT_WRITTEN or, when the frame was still taken and is then dropped,
 * CORVEL_SUCCESS. Where the command that takes the link down fails, they go on waiting. (This takes
 * two spare file descriptors during the release. In a process that has none left, such a call goes
 * on with the closed descriptor.)
 *
 * When a link goes down by other hands (an administrator, say), one waiting read of the device
 * learns of it; a read after that waits its time-out, or fails at once while writes of other
 * threads fail. When a link that went down is up again at once, a read that a write of another
 * thread met may outlast its time-out, until a frame comes, the link goes down again or the device
 * is released. When an adapter is removed, a write may learn of it in the place of a read that
 * waits: that read then outlasts its time-out and a release, until a signal is handled on its
 * thread.
 *
 * Devices still initialised when the library is unloaded or the process exits stay configured and
 * up: release each device first. A link that is up cannot be configured: the next program's
 * initialisation then fails with CORVEL_OPEN_FAILED ("Device or resource busy") until somebody runs
 * `sudo ip link set canN down`. Calls that come when the process is ending find no device.
 *
 * Failures are reported by status; the reason goes to the log. A log library that blocks holds up
 * the call, and one that calls back while status 1 is logged never returns. A program that another
 * thread starts in the instant in which a socket is made may inherit it. C++ callers: no function
 * catches std::bad_alloc. Where it leaves a function, no lock is held, no descriptor is left open,
 * an initialisation has registered nothing, a release has removed the device, and the next call
 * works. The link itself may be left up.
 */
#ifndef TN_CORVEL_H
#define TN_CORVEL_H

#include <stdbool.h>
#include <stdint.h>

/** Marks what the shared library exports. */
#define CORVEL_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/** What the functions return. There is no status 4. */
enum corvel_Status {
    CORVEL_SUCCESS = 0,     /**< Done. */
    CORVEL_NO_DEVICE = 1,   /**< Nothing done: no such device, or it is already initialised. */
    CORVEL_NO_FRAME = 2,    /**< No frame was read: time-out, or reading failed. */
    CORVEL_NOT_WRITTEN = 3, /**< The frame was not written. */
    CORVEL_OPEN_FAILED = 5  /**< The interface exists but could not be configured or opened. */
};

/**
 * One CAN or CAN FD frame: 24 bytes, in the machine's byte order. The caller owns every record; the
 * library uses it only during the call that receives it.
 *
 * The record does not say whether a frame is classic or CAN FD: a device sends the format that it
 * was initialised for, and receives both. It carries at most 8 payload bytes; CAN FD frames with
 * more are refused in both directions.
 */
typedef struct _corvel_CanMsg {
    /**
     * Sent: the 11-bit or 29-bit identifier. Not masked: bits 31 (extended), 30 (remote) and 29
     * (error) reach the kernel as they are, so a received record can be sent back unchanged.
     * Received: the identifier in bits 0 to 28, and those three flags.
     */
    uint32_t id;
    uint8_t data[8];     /**< Payload in frame order; only the first len bytes count. */
    uint8_t len;         /**< Payload bytes, 0 to 8. Sent above 8: classic 8, CAN FD refused. */
    uint8_t reserved[7]; /**< Neither read nor written. */
    uint8_t remote;      /**< Remote frame (classic only): any value but 0; received 0 or 1. */
    uint8_t extended;    /**< 29-bit identifier: any value but 0; received 0 or 1. */
} _corvel_CanMsg;

/**
 * Configures interface "can" + devIndex, brings it up and opens it.
 *
 * Runs two `ip link set` commands under `sudo`, which the calling user must be allowed to use, and
 * takes as long as they do. The application must not ignore SIGCHLD meanwhile, nor wait for any
 * child, as waitpid(-1, ...) does, in another thread: the commands' outcome would be lost (status
 * 5). It waits for its own children by their process id instead. A link that is already up, as a
 * program that was killed leaves it, is not taken down: status 5, as above; and after status 5 the
 * link may be left up.
 *
 * @param devIndex number of the interface; not a position, not the kernel's interface index
 * @param bitrate  nominal bit rate in kbit/s, at most 4294967; examined by the controller's driver
 *                 alone
 * @param canFd    true: CAN FD. Every frame is then sent as a CAN FD frame with bit-rate switch.
 * @param dbitrate data-phase bit rate in kbit/s, as bitrate; without effect unless canFd
 * @return CORVEL_SUCCESS; CORVEL_NO_DEVICE when the index is already initialised, the interfaces
 *         cannot be listed or none has this number; CORVEL_OPEN_FAILED
 */
CORVEL_API int32_t corvel_initDLL(int32_t devIndex, uint32_t bitrate, bool canFd,
                                  uint32_t dbitrate);

/**
 * Closes a device and takes its interface down, by one `ip link set` command under `sudo`.
 *
 * @param devIndex index of an initialised device
 * @return CORVEL_SUCCESS, whatever the command achieved; CORVEL_NO_DEVICE when the index is not
 *         initialised
 */
CORVEL_API int32_t corvel_freeDLL(int32_t devIndex);

/**
 * Hands one frame to the kernel for transmission. Does not wait for it to appear on the bus.
 *
 * The socket is a blocking one: when its send buffer is full, with some hundreds of frames not yet
 * on the bus, the call waits until one of them is, or a signal is handled on its thread. Where
 * nothing acknowledges frames, that may be until the device is released.
 *
 * @param devIndex index of an initialised device
 * @param msg      frame to send
 * @return CORVEL_SUCCESS; CORVEL_NO_DEVICE when the index is not initialised; CORVEL_NOT_WRITTEN
 *         when the transmit queue is full (try again later), a signal interrupted the wait for
 *         room, the link is down, msg is null, or a CAN FD device is asked for a remote frame or
 *         for more than 8 bytes
 */
CORVEL_API int32_t corvel_writeMessage(int32_t devIndex, const struct _corvel_CanMsg* msg);

/**
 * Waits for one frame and takes it from the device's receive queue.
 *
 * @param devIndex index of an initialised device
 * @param msg      receives the frame: id, len, remote, extended and the first len bytes of data.
 *                 Everything else in it, and all of it when no frame was read, stays as it was.
 * @param timeout  longest wait in milliseconds; 0 polls. There is no endless wait.
 * @return CORVEL_SUCCESS; CORVEL_NO_DEVICE when the index is not initialised; CORVEL_NO_FRAME when
 *         none came in time, a signal interrupted the wait, the link is down, msg is null, or a CAN
 *         FD frame of more than 8 bytes came, which is dropped
 */
CORVEL_API int32_t corvel_readMessage(int32_t devIndex, struct _corvel_CanMsg* msg,
                                      uint32_t timeout);

#ifdef __cplusplus
}
#endif

#endif
