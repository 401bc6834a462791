// Calls that come when the library has been told that the process ends: late_test LIBRARY

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>

#include "tn_corvel.h"

static decltype(&corvel_initDLL) init;
static decltype(&corvel_freeDLL) release;

// There before the library was loaded, and so destroyed after what the library keeps.
static const struct Last {
    ~Last() {
        const int released = release(0), again = init(0, 500, false, 0);
        printf("late calls: %d %d\n", released, again);
        fflush(stdout);
        _exit(released == CORVEL_NO_DEVICE && again == CORVEL_NO_DEVICE ? 0 : 1);
    }
} last;

int main(int, char** words) {
    void* const library = dlopen(words[1], RTLD_NOW);
    init = reinterpret_cast<decltype(init)>(dlsym(library, "corvel_initDLL"));
    release = reinterpret_cast<decltype(release)>(dlsym(library, "corvel_freeDLL"));
    return init(0, 500, false, 0);
}
