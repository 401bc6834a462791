// Lets a program end in order on Ctrl-C (SIGINT), SIGTERM and SIGHUP, so that it can release its
// adapters: a link that is left up locks the next program out. To copy. Linux only.

#pragma once

#include <signal.h>
#include <string.h>
#include <unistd.h>

static volatile sig_atomic_t stopped = 0;  // one of the signals has come
static sigset_t endSignals;                // those that the program does not ignore (as nohup asks)

static inline void stop(int number) {
    (void)number;
    stopped = 1;
    alarm(1);  // and once more, should this one come just before a call that waits
}

static inline void handleSignals(void (*handler)(int)) {
    for (int number = 1; number < 32; number++) {
        struct sigaction action;
        memset(&action, 0, sizeof action);  // no SA_RESTART
        action.sa_handler = handler;
        if (sigismember(&endSignals, number)) sigaction(number, &action, NULL);
    }
}

// Keeps the signals waiting, and the commands that an initialisation or a release runs from ending
// by them: blocked, a signal waits in this process; ignored, it does not end the commands. (A
// SIGINT that comes while commands run may be lost, as running one discards it; the next is not.)
static inline void holdSignals(void) {
    const int numbers[] = {SIGINT, SIGTERM, SIGHUP, SIGALRM};
    sigset_t blocked;
    sigprocmask(SIG_BLOCK, NULL, &blocked);
    if (sigismember(&blocked, SIGALRM)) return;
    sigemptyset(&endSignals);
    for (int i = 0; i < 4; i++) {
        struct sigaction action;
        sigaction(numbers[i], NULL, &action);
        if (action.sa_handler != SIG_IGN) sigaddset(&endSignals, numbers[i]);
    }
    sigprocmask(SIG_BLOCK, &endSignals, NULL);
    handleSignals(SIG_IGN);
    signal(SIGPIPE, SIG_IGN);  // a reader of the output that goes away is no reason to end either
}

// Lets them through: they set `stopped`, and end a read that waits or a write that is blocked.
static inline void letSignals(void) {
    handleSignals(stop);
    sigprocmask(SIG_UNBLOCK, &endSignals, NULL);
}
