// What a healthy bus never shows, ordered by a test.

#include <errno.h>

#include "internal.h"

static atomic_int failures[SIMCAN_CACHE + 1];

int failsNow(enum simcan_Call call) {
    const int error = atomic_exchange(&failures[call], 0);
    if (error != 0) errno = error;
    return error != 0;
}

EXPORT void simcan_failNext(enum simcan_Call call, int error) {
    if (call <= SIMCAN_CACHE) failures[call] = error;
}

// The interface, or NULL after a line on standard error.
static struct link* orderedLink(const char* name) {
    struct link* const link = linkNamed(name);
    errno = ENODEV;
    if (link == NULL) reportMissing(name);
    return link;
}

EXPORT void simcan_linkDown(const char* interface) {
    struct link* const link = orderedLink(interface);
    if (link != NULL) takeDown(link);
}
