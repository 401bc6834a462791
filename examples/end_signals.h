// Lets a program end in order on Ctrl-C (SIGINT), SIGTERM and SIGHUP, so that it can release its
// adapters: a link that is left up locks the next program out. To copy.

#pragma once

#include <signal.h>
#include <stddef.h>
#include <unistd.h>

static volatile sig_atomic_t stopped = 0;  // one of the signals has come

static inline void stop(int number) {
    (void)number;
    stopped = 1;
    alarm(1);  // and once more, should this one come just before a call that waits
}

static inline sigset_t endSignals(void) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    sigaddset(&set, SIGALRM);
    return set;
}

// SIG_BLOCK holds the signals back; do so while an adapter is initialised or released, since the
// commands that these run would get a Ctrl-C too. SIG_UNBLOCK lets them through: then they set
// `stopped` and end a waiting read or a blocked write. Signals that are ignored (nohup) stay so.
static inline void endOnSignals(int how) {
    const int numbers[] = {SIGINT, SIGTERM, SIGHUP, SIGALRM};
    const sigset_t set = endSignals();
    signal(SIGPIPE, SIG_IGN);  // a reader of the output that goes away is no reason either
    for (size_t i = 0; i < sizeof numbers / sizeof *numbers; i++) {
        struct sigaction action;
        sigaction(numbers[i], NULL, &action);
        if (action.sa_handler == SIG_IGN) continue;
        action.sa_handler = stop;
        action.sa_flags = 0;  // no SA_RESTART
        sigaction(numbers[i], &action, NULL);
    }
    sigprocmask(how, &set, NULL);
}
