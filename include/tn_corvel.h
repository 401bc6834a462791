/**
 * @file
 * Drives USB-to-CAN adapters of the Corvel kind, which the kernel exposes as the network interfaces
 * can0, can1 and so on. Initialise an adapter with corvel_initDLL(), send and receive single frames
 * with corvel_writeMessage() and corvel_readMessage(), and end with corvel_freeDLL(). The device
 * index that all four take is the number N of the interface canN.
 *
 * What the library promises:
 * - Any thread may call any function, for any index. A read that waits blocks other reads of the
 *   same device, and nothing else.
 * - corvel_freeDLL() does not wait for calls in progress. They return once the link is down; until
 *   then their descriptor is not reused. A write in progress may still return 0, but its frame
 *   is dropped.
 * - A device delivers frames of its own interface only. After its adapter was removed, it neither
 *   receives nor sends until it is released and initialised again.
 * - Failures are reported by status; the reason goes to the log (libpelid_log.so). The only
 *   C++ exception is std::bad_alloc. After it, no lock is held and no descriptor is open; an
 *   initialisation has registered nothing, a release has removed the device. The link may stay up.
 * - Process exit and unloading never block on a lock.
 *
 * What the caller must do:
 * - Release every device, and end the calls of other threads, before the process exits or the
 *   library is unloaded. A device that is not released keeps its link up, and the next
 *   corvel_initDLL() fails. A call that runs while the process ends may crash.
 * - For one index, run no initialisation at the same time as another one or as a release. Of two
 *   initialisations that overlap, one leaves its socket open until the process exits.
 * - Initialise and release a device in one network namespace, and rename no link meanwhile.
 * - During an initialisation, neither ignore SIGCHLD nor call wait() or waitpid(-1, ...) in another
 *   thread: the outcome of its commands would be lost (CORVEL_OPEN_FAILED).
 * - Make no call from a signal handler. After fork, make none in the child of a process with
 *   threads before it executes another program. Cancel no thread inside a call.
 * - Provide a log library that does not call this library, which would deadlock.
 *
 * docs/threads.md gives the reasons, and the rare cases in which a promise is weaker: no spare file
 * descriptors, no right to run a command, a link that is taken down by hand, an adapter pulled out.
 */
#ifndef TN_CORVEL_H
#define TN_CORVEL_H

#include <stdbool.h>
#include <stdint.h>

/** The version of the library that this header belongs to. */
#define TN_CORVEL_VERSION "1.0.0"

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
 * was initialised for, and a CAN FD device also receives classic frames. A CAN FD frame of more
 * than 8 bytes does not fit: received, it is dropped, and the read fails. The bytes of a sent frame
 * that no field supplies are zero.
 */
typedef struct _corvel_CanMsg {
    /**
     * Sent: the 11-bit or 29-bit identifier. Not masked: bits 31 (extended), 30 (remote) and 29
     * (error) reach the kernel as they are, so a classic device can send a received record back.
     * Received: the identifier in bits 0 to 28, and those three flags.
     */
    uint32_t id;
    uint8_t data[8];     /**< Payload in frame order; only the first len bytes count. */
    uint8_t len;         /**< Payload bytes, 0 to 8. More: classic sends 8, CAN FD refuses. */
    uint8_t reserved[7]; /**< Neither read nor written. */
    uint8_t remote;      /**< Remote frame (classic only): any value but 0; received 0 or 1. */
    uint8_t extended;    /**< 29-bit identifier: any value but 0; received 0 or 1. */
} _corvel_CanMsg;

/**
 * Configures interface "can" + devIndex, brings it up and opens it.
 *
 * Runs two `ip link set` commands under `sudo`, and takes as long as they do. The calling user must
 * be allowed to run them (docs/permissions.md). A link that is up already is refused ("Device or
 * resource busy"), and after a failure the link may stay up: `sudo ip link set canN down`.
 *
 * @param devIndex number of the interface; not a position, not the kernel's interface index
 * @param bitrate  nominal bit rate in kbit/s, at most 4294967; checked only by the kernel's CAN
 *                 driver. 0 keeps the timing that the link has.
 * @param canFd    true: CAN FD. Every frame is then sent as a CAN FD frame with bit-rate switch.
 * @param dbitrate data-phase bit rate in kbit/s, in the same range; ignored unless canFd
 * @retval CORVEL_SUCCESS (0) the device is open
 * @retval CORVEL_NO_DEVICE (1) the index is initialised already, the interfaces cannot be listed,
 *         or none has this number
 * @retval CORVEL_OPEN_FAILED (5) the interface exists but could not be configured or opened
 */
CORVEL_API int32_t corvel_initDLL(int32_t devIndex, uint32_t bitrate, bool canFd,
                                  uint32_t dbitrate);

/**
 * Closes a device and takes its interface down, by one `ip link set` command under `sudo`.
 *
 * @param devIndex index of an initialised device
 * @retval CORVEL_SUCCESS (0) the device is closed, even if the command failed
 * @retval CORVEL_NO_DEVICE (1) the index is not initialised
 */
CORVEL_API int32_t corvel_freeDLL(int32_t devIndex);

/**
 * Hands one frame to the kernel for transmission.
 *
 * Does not wait for the frame to appear on the bus. But when the socket's send buffer is full, with
 * some hundreds of frames not yet on the bus, the call blocks until one of them is, the device is
 * released, or a signal is handled on its thread: without limit while no other node acknowledges.
 *
 * @param devIndex index of an initialised device
 * @param msg      frame to send
 * @retval CORVEL_SUCCESS (0) the kernel has the frame
 * @retval CORVEL_NO_DEVICE (1) the index is not initialised
 * @retval CORVEL_NOT_WRITTEN (3) the transmit queue is full (try again later), a signal interrupted
 *         the wait for room, the link is down, the device was released meanwhile, msg is null, or
 *         a CAN FD device was given a remote frame or too large a len
 */
CORVEL_API int32_t corvel_writeMessage(int32_t devIndex, const struct _corvel_CanMsg* msg);

/**
 * Waits for one frame and takes it from the device's receive queue.
 *
 * @param devIndex index of an initialised device
 * @param msg      receives the frame: id, len, remote, extended and the first len bytes of data.
 *                 Everything else in it, and all of it when no frame was read, stays as it was.
 * @param timeout  longest wait in milliseconds; 0 polls. There is no endless wait.
 * @retval CORVEL_SUCCESS (0) a frame was read
 * @retval CORVEL_NO_DEVICE (1) the index is not initialised
 * @retval CORVEL_NO_FRAME (2) none came in time, a signal interrupted the wait, the link went down,
 *         the device was released meanwhile, msg is null, or a frame came that does not fit
 */
CORVEL_API int32_t corvel_readMessage(int32_t devIndex, struct _corvel_CanMsg* msg,
                                      uint32_t timeout);

#ifdef __cplusplus
}
#endif

#endif
