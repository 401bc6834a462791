// Faults that a test orders, by environment variables or through simcan.h.

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "internal.h"

enum { RULE_LIMIT = 16 };
enum { TRANSMIT_QUEUE = 288 };  // frames that a controller without a partner took

static struct rule {
    int call, error, count, after;
} rules[RULE_LIMIT];
static int ruleCount;
static atomic_llong callsMade[SIMCAN_CACHE + 1];
static atomic_int nextErrors[SIMCAN_CACHE + 1];
static pthread_once_t ordersRead = PTHREAD_ONCE_INIT;

#pragma weak strerrorname_np  // musl has none

// Not strtol: built with a new C library, it becomes a symbol that older ones lack.
static int parseNumber(const char* text) {
    int value = *text != '\0' ? 0 : -1;
    for (; *text != '\0'; text++) {
        if (*text < '0' || *text > '9' || value > 99999999) return -1;
        value = value * 10 + (*text - '0');
    }
    return value;
}

static int parseError(const char* text) {
    for (int error = 1; strerrorname_np != NULL && error < 4096; error++) {
        const char* const name = strerrorname_np(error);
        if (name != NULL && strcmp(name, text) == 0) return error;
    }
    return parseNumber(text);
}

static int parseCall(const char* text) {
    static const char* const names[] = {"socket", "write", "cache"};
    int call = SIMCAN_CACHE;
    while (call >= 0 && strcmp(names[call], text) != 0) call--;
    return call;
}

// False when it is not CALL ERROR [COUNT [AFTER]].
static int addRule(char* text) {
    const char* words[] = {"", "", "1", "0"};
    char* rest = NULL;
    int found = 0;
    for (char* word = strtok_r(text, BLANKS, &rest); word != NULL;
         word = strtok_r(NULL, BLANKS, &rest)) {
        if (found == 4) return 0;
        words[found++] = word;
    }
    const struct rule rule = {parseCall(words[0]), parseError(words[1]), parseNumber(words[2]),
                              parseNumber(words[3])};
    const int wrong = rule.call < 0 || rule.error <= 0 || rule.count < 0 || rule.after < 0;
    if (wrong || ruleCount == RULE_LIMIT) return 0;
    rules[ruleCount++] = rule;
    return 1;
}

// False when it is not NAME or NAME:FRAMES.
static int addStall(char* text) {
    char* const colon = strchr(text, ':');
    if (colon != NULL) *colon = '\0';
    struct link* const link = linkNamed(text);
    const int frames = colon != NULL ? parseNumber(colon + 1) : TRANSMIT_QUEUE;
    if (link == NULL || frames < 0) return 0;
    link->queue = link->room = frames;
    return 1;
}

static void readOrders(void) {
    for (int i = 0; i < linkCount(); i++) links[i].queue = links[i].room = -1;
    readWords("SIMCAN_FAIL", "", ";", addRule,
              "CALL ERROR [COUNT [AFTER]], as in SIMCAN_FAIL='write ENOBUFS 3; socket EMFILE'");
    readWords("SIMCAN_STALL", "", BLANKS, addStall,
              "interfaces of SIMCAN as NAME or NAME:FRAMES, as in SIMCAN_STALL='can0:100'");
}

__attribute__((constructor)) static void ensureOrders(void) {
    pthread_once(&ordersRead, readOrders);
}

int failsNow(enum simcan_Call call) {
    ensureOrders();
    const long long before = atomic_fetch_add(&callsMade[call], 1);
    int error = atomic_exchange(&nextErrors[call], 0);
    for (const struct rule* rule = rules; error == 0 && rule < rules + ruleCount; rule++) {
        const long long turn = before - rule->after;
        if (rule->call == (int)call && turn >= 0 && (rule->count == 0 || turn < rule->count)) {
            error = rule->error;
        }
    }
    if (error != 0) errno = error;
    return error != 0;
}

EXPORT void simcan_failNext(enum simcan_Call call, int error) {
    if ((unsigned)call <= SIMCAN_CACHE && error >= 0) {
        nextErrors[call] = error;
    } else {
        fprintf(stderr, "simcan: no such call or error: %d, %d\n", (int)call, error);
    }
}

EXPORT void simcan_linkDown(const char* interface) {
    struct link* const link = linkNamed(interface);
    if (link == NULL) return reportMissing(interface);
    takeDown(link);
}

EXPORT void simcan_stall(const char* interface, int frames) {
    struct link* const link = linkNamed(interface);
    if (link == NULL) return reportMissing(interface);
    ensureOrders();
    link->queue = link->room = frames;
    sendOnce("", 0);  // wakes writes that wait
}

int takeRoom(struct link* link) {
    int left = link->room;
    while (left > 0 && !atomic_compare_exchange_weak(&link->room, &left, left - 1)) continue;
    return left;
}

// Waits in the kernel for reports about links, so that signals and time-outs are the kernel's own.
static int waitOn(int waiter, int fd, struct link* link) {
    struct program program;
    compileReports(&program);
    if (attachFilter(waiter, &program) != 0 || joinBuses(waiter) != 0) return -1;
    noteNext(fd, link);  // a report that came before the waiter joined
    while (link->room == 0 && !link->isDown) {
        struct label report;
        const ssize_t received = REAL(recv)(waiter, &report, sizeof report, 0);
        if (received < 0) return -1;
        if (received == sizeof report) noteReport(link, &report);
    }
    return 0;
}

int waitForRoom(int fd, struct link* link, int flags) {
    struct timeval limit = {0};
    socklen_t size = sizeof limit;
    if ((flags & MSG_DONTWAIT) != 0 || (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0) {
        errno = EAGAIN;
        return -1;
    }
    const int waiter = openLoopback(SOCK_CLOEXEC);
    if (waiter < 0) return -1;
    REAL(getsockopt)(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, &size);
    REAL(setsockopt)(waiter, SOL_SOCKET, SO_RCVTIMEO, &limit, size);
    const int result = waitOn(waiter, fd, link);
    const int saved = errno;
    close(waiter);
    errno = saved;
    return result;
}
