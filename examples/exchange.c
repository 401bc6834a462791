// Exchanges frames between two adapters on one bus and checks every one: exchange [A B]
// A and B are the numbers of their interfaces, 0 and 1 by default. Exits with 1 on any surprise.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tn_corvel.h>

#include "arguments.h"
#include "end_signals.h"

enum { NOMINAL_KBIT = 500, DATA_KBIT = 2000, TIMEOUT_MS = 1000 };

static int surprises = 0;

// Compares a status with what it should be.
static void expect(const char* what, int status, int expected) {
    printf("  %-44s status %d%s\n", what, status, status == expected ? "" : "  <- SURPRISE");
    surprises += status != expected;
}

// Writes a frame in candump's notation: identifier, [length], payload.
static void format(char* text, size_t size, const _corvel_CanMsg* msg, int canFd) {
    const unsigned id = msg->id & 0x1FFFFFFF;
    int used = snprintf(text, size, msg->extended ? "%08X  [%0*d] " : "%03X  [%0*d] ", id,
                        canFd ? 2 : 1, msg->len);
    if (msg->remote) {
        snprintf(text + used, size - (size_t)used, " remote request");
        return;
    }
    for (int i = 0; i < msg->len; i++) {
        used += snprintf(text + used, size - (size_t)used, " %02X", msg->data[i]);
    }
}

// Sends one frame and expects it unchanged on the other adapter.
static void exchange(int from, int to, const _corvel_CanMsg* sent, int canFd) {
    if (stopped) return;
    char left[64], right[64] = "(nothing)";
    _corvel_CanMsg got;
    memset(&got, 0, sizeof got);

    const int written = corvel_writeMessage(from, sent);
    const int read = corvel_readMessage(to, &got, TIMEOUT_MS);
    format(left, sizeof left, sent, canFd);
    if (read == CORVEL_SUCCESS) format(right, sizeof right, &got, canFd);
    const int same = written == CORVEL_SUCCESS && read == CORVEL_SUCCESS &&
                     (got.id & 0x1FFFFFFF) == sent->id && got.len == sent->len &&
                     got.extended == sent->extended && got.remote == sent->remote &&
                     (sent->remote || memcmp(got.data, sent->data, sent->len) == 0);
    printf("  can%d  %-40s can%d  %s%s\n", from, left, to, right, same ? "" : "  <- SURPRISE");
    surprises += !same;
}

static void initialise(int a, int b, int canFd) {
    holdSignals();
    const int devices[] = {a, b};
    for (int i = 0; i < 2; i++) {
        const int status = corvel_initDLL(devices[i], NOMINAL_KBIT, canFd, DATA_KBIT);
        printf("can%d: initialised, %s, status %d\n", devices[i], canFd ? "CAN FD" : "classic CAN",
               status);
        if (status == CORVEL_SUCCESS) continue;
        fprintf(stderr, "exchange: can%d could not be initialised (status %d)\n", devices[i],
                status);
        if (i == 1) corvel_freeDLL(a);
        exit(EXIT_FAILURE);
    }
    letSignals();
}

static void release(int a, int b) {
    holdSignals();
    expect("release the first", corvel_freeDLL(a), CORVEL_SUCCESS);
    expect("release the second", corvel_freeDLL(b), CORVEL_SUCCESS);
    if (stopped) exit(EXIT_FAILURE);
}

int main(int count, char** arguments) {
    uint32_t numbers[] = {0, 1};
    readNumbers("usage: exchange [A B]    numbers of two CAN interfaces on one bus\n", count,
                arguments, 0, 2, numbers);
    const int a = (int)numbers[0], b = (int)numbers[1];
    setvbuf(stdout, NULL, _IOLBF, 0);  // in order with the log on standard error

    const _corvel_CanMsg standard = {.id = 0x123, .data = {0x11, 0x22, 0x33}, .len = 3};
    const _corvel_CanMsg extended = {
        .id = 0x1ABCDE, .data = {1, 2, 3, 4, 5, 6, 7, 8}, .len = 8, .extended = 1};
    const _corvel_CanMsg remote = {.id = 0x7FF, .len = 2, .remote = 1};
    const _corvel_CanMsg empty = {.id = 0};
    const _corvel_CanMsg tooLong = {.id = 0x123, .len = 9};
    _corvel_CanMsg got;

    initialise(a, b, 0);
    exchange(a, b, &standard, 0);
    exchange(a, b, &extended, 0);
    exchange(a, b, &remote, 0);
    exchange(b, a, &empty, 0);
    exchange(b, a, &extended, 0);
    expect("read without traffic, 250 ms", corvel_readMessage(b, &got, 250), CORVEL_NO_FRAME);
    release(a, b);

    initialise(a, b, 1);
    exchange(a, b, &standard, 1);
    exchange(b, a, &extended, 1);
    expect("remote frame in CAN FD mode", corvel_writeMessage(a, &remote), CORVEL_NOT_WRITTEN);
    expect("9 bytes in CAN FD mode", corvel_writeMessage(a, &tooLong), CORVEL_NOT_WRITTEN);
    exchange(a, b, &empty, 1);
    release(a, b);
    expect("write after the release", corvel_writeMessage(a, &standard), CORVEL_NO_DEVICE);

    printf("%s\n", surprises == 0 ? "all as expected" : "NOT as expected");
    return surprises == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
