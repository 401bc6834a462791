// Prints what arrives on one adapter until interrupted, as candump -L does:
//   monitor N [BITRATE [DBITRATE]]
// N is the number of the interface, rates are in kbit/s (500); a data bit rate selects CAN FD.

#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <tn_corvel.h>

#include "arguments.h"
#include "end_signals.h"

static const char usage[] =
    "usage: monitor N [BITRATE [DBITRATE]]\n"
    "N: number of the interface; rates in kbit/s; a data bit rate selects CAN FD\n";

static double now(clockid_t clock) {
    struct timespec time;
    clock_gettime(clock, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

// Prints one line: (time) interface identifier#payload
static void print(int device, const _corvel_CanMsg* msg) {
    printf("(%.6f) can%d ", now(CLOCK_REALTIME), device);
    printf(msg->extended ? "%08X#" : "%03X#", msg->id & 0x1FFFFFFF);
    if (msg->remote) {
        putchar('R');
        if (msg->len > 0) printf("%d", msg->len);
    }
    for (int i = 0; !msg->remote && i < msg->len; i++) printf("%02X", msg->data[i]);
    putchar('\n');
}

int main(int count, char** arguments) {
    uint32_t numbers[] = {0, 500, 0};
    readNumbers(usage, count, arguments, 1, 3, numbers);
    const int device = (int)numbers[0];

    holdSignals();
    const int status = corvel_initDLL(device, numbers[1], count > 3, numbers[2]);
    if (status != CORVEL_SUCCESS) {
        fprintf(stderr, "monitor: can%d could not be initialised (status %d)\n", device, status);
        return 1;
    }
    letSignals();
    fprintf(stderr, "monitor: can%d is open\n", device);
    const double start = now(CLOCK_MONOTONIC);
    unsigned long frames = 0;
    while (!stopped) {
        _corvel_CanMsg msg;
        if (corvel_readMessage(device, &msg, 1000) == CORVEL_SUCCESS) {
            print(device, &msg);
            frames++;
        }
        if (fflush(stdout) != 0) break;
    }
    const double seconds = now(CLOCK_MONOTONIC) - start;
    holdSignals();
    corvel_freeDLL(device);
    fprintf(stderr, "%lu frames in %.1f s, %.1f frames/s\n", frames, seconds,
            (double)frames / seconds);
    return ferror(stdout) ? 1 : 0;
}
