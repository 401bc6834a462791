// The functions of the C library that this library stands in for.

#include <dlfcn.h>

#include "internal.h"

struct Real real;

__attribute__((constructor)) void findReal(void) {
// NOLINTNEXTLINE: a member takes no parentheses
#define X(name) real.name = (__typeof__(&name))dlsym(RTLD_NEXT, #name);
    STAND_INS(X)
#undef X
}
