// Failures that a healthy bus never shows, for tests of an application: simcan ./failures

#include <errno.h>
#include <pthread.h>
#include <simcan.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <tn_corvel.h>

static int surprises = 0;

static void expect(const char* what, int status, int expected) {
    printf("%-40s status %d\n", what, status);
    if (status != expected) surprises++;
}

static void* releaseSoon(void* status) {
    nanosleep(&(struct timespec){.tv_nsec = 200000000}, NULL);
    *(int*)status = corvel_freeDLL(0);
    return NULL;
}

int main(void) {
    if (simcan_failNext == NULL) {
        fprintf(stderr, "failures: runs on the simulated bus only: simcan ./failures\n");
        return 2;
    }
    const _corvel_CanMsg msg = {.id = 0x123};
    _corvel_CanMsg got;

    setenv("SIMCAN_SUDO_FAIL", "txqueuelen exit 2", 1);
    expect("a command that fails", corvel_initDLL(0, 500, false, 0), CORVEL_OPEN_FAILED);
    unsetenv("SIMCAN_SUDO_FAIL");
    expect("a bit rate that is too high", corvel_initDLL(0, 500000, false, 0), CORVEL_OPEN_FAILED);
    simcan_failNext(SIMCAN_SOCKET, EMFILE);
    expect("no descriptor for the socket", corvel_initDLL(0, 500, false, 0), CORVEL_OPEN_FAILED);
    simcan_failNext(SIMCAN_CACHE, 12);
    expect("interfaces that cannot be listed", corvel_initDLL(0, 500, false, 0), CORVEL_NO_DEVICE);

    expect("initialise", corvel_initDLL(0, 500, false, 0), CORVEL_SUCCESS);
    simcan_failNext(SIMCAN_WRITE, ENOBUFS);
    expect("a full transmit queue", corvel_writeMessage(0, &msg), CORVEL_NOT_WRITTEN);
    expect("the same frame again", corvel_writeMessage(0, &msg), CORVEL_SUCCESS);
    simcan_linkDown("can0");
    expect("a link that goes down", corvel_readMessage(0, &got, 1000), CORVEL_NO_FRAME);
    expect("a write to it", corvel_writeMessage(0, &msg), CORVEL_NOT_WRITTEN);
    expect("release", corvel_freeDLL(0), CORVEL_SUCCESS);

    expect("initialise again", corvel_initDLL(0, 500, false, 0), CORVEL_SUCCESS);
    simcan_stall("can0", 0);  // nobody acknowledges: a write waits
    pthread_t other;
    int released = -1;
    pthread_create(&other, NULL, releaseSoon, &released);
    expect("a write until another thread releases", corvel_writeMessage(0, &msg),
           CORVEL_NOT_WRITTEN);
    pthread_join(other, NULL);
    expect("that release", released, CORVEL_SUCCESS);

    puts(surprises == 0 ? "all as expected" : "NOT as expected");
    return surprises == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
