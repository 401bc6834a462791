// Lets a program end in order on Ctrl-C (SIGINT), SIGTERM and SIGHUP, so that it can release its
// adapters: a link that is left up locks the next program out. To copy. Linux only.

#pragma once

#include <signal.h>
#include <string.h>
#include <unistd.h>

static volatile sig_atomic_t stopped = 0;  // a signal has arrived
static sigset_t endSignals;                // without those that were ignored at the start (nohup)

static inline void stop(int number) {
    (void)number;
    stopped = 1;
    alarm(1);  // a second signal, as the first may arrive just before a call that waits
}

static inline void handleSignals(void (*handler)(int)) {
    for (int number = 1; number < 32; number++) {
        struct sigaction action;
        memset(&action, 0, sizeof action);  // no SA_RESTART
        action.sa_handler = handler;
        if (sigismember(&endSignals, number)) sigaction(number, &action, NULL);
    }
}

// Holds the signals back, in this process and in the commands that an initialisation or a release
// runs: blocked, they wait in this process; ignored, they do not end the commands. (A SIGINT that
// arrives while a command runs may be lost, as system() discards it; the next one is not.)
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
    signal(SIGPIPE, SIG_IGN);  // nor end when the reader of the output goes away
}

// Handles the signals: they set `stopped`, and end a read or write that waits.
static inline void letSignals(void) {
    handleSignals(stop);
    sigprocmask(SIG_UNBLOCK, &endSignals, NULL);
}
