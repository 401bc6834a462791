// What a socket keeps. It is kept in the socket itself, as a table in the program would lose it:
// descriptors are duplicated, inherited by children, and kept by programs that others execute.

#include <errno.h>

#include "internal.h"

// A state is stored in SO_RCVLOWAT, which datagrams ignore. Its high bits mark CAN sockets.
enum { MARK = 0x5CA00000, MARK_BITS = 0x3FF };

struct state readState(int fd) {
    const int saved = errno;
    int mark = 0;
    socklen_t size = sizeof mark;
    REAL(getsockopt)(fd, SOL_SOCKET, SO_RCVLOWAT, &mark, &size);
    errno = saved;
    return (struct state){((mark & MARK_BITS) >> 4) + NO_LINK, mark & 0xF,
                          (mark & ~MARK_BITS) == MARK};
}

uint32_t numberOf(int fd) {
    uint64_t cookie = 0;
    socklen_t size = sizeof cookie;
    REAL(getsockopt)(fd, SOL_SOCKET, SO_COOKIE, &cookie, &size);
    return (uint32_t)cookie;
}

void readSettings(int fd, struct settings* settings) {
    struct program program = {.length = 0};
    socklen_t length = sizeof program.code / sizeof *program.code;
    REAL(getsockopt)(fd, SOL_SOCKET, SO_GET_FILTER, program.code, &length);
    extractSettings(&program, settings);
}

int attachFilter(int fd, struct program* program) {
    const struct sock_fprog attached = {program->length, program->code};
    return REAL(setsockopt)(fd, SOL_SOCKET, SO_ATTACH_FILTER, &attached, sizeof attached);
}

int applyState(int fd, struct state state, const struct settings* settings) {
    const int mark = MARK | (state.link - NO_LINK) << 4 | state.options;
    struct program program;
    compileFilter(&program, state, numberOf(fd), settings);
    if (attachFilter(fd, &program) != 0) return -1;
    return REAL(setsockopt)(fd, SOL_SOCKET, SO_RCVLOWAT, &mark, sizeof mark);
}
