// Tests a program as it is, between two simulated buses:
//   SIMCAN="can0:left can1:left can2:right can3:right" simcan --own ./gateway_test ./gateway
// The gateway joins can0 and can2; the test has the other end of each bus.

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include "adapter.hpp"

// Sends a frame on one adapter and waits for it on the other.
static bool passes(Adapter& from, Adapter& to, uint32_t id) {
    if (!from.write({id, {0x11, 0x22}, 2, {}, 0, 0})) return false;
    const auto got = to.read(std::chrono::seconds(5));
    const bool passed = got && got->id == id && got->len == 2 && got->data[1] == 0x22;
    std::printf("frame %03X %s\n", id, passed ? "passed" : "did NOT pass");
    return passed;
}

int main(int count, char** arguments) try {
    if (count != 2) return 2;
    int errors[2];
    if (pipe(errors) != 0) return 1;
    const pid_t gateway = fork();
    if (gateway == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);  // so that it ends with a test that fails
        dup2(errors[1], STDERR_FILENO);
        execl(arguments[1], arguments[1], "0", "2", nullptr);
        _exit(127);
    }
    close(errors[1]);
    std::string log;
    while (log.find("are open") == std::string::npos) {  // it is ready now
        char c;
        if (read(errors[0], &c, 1) != 1) return 1;
        log += c;
    }
    bool passed;
    {
        Adapter left(1), right(3);
        passed = passes(left, right, 0x123);
        passed = passes(right, left, 0x456) && passed;
    }
    int status = 0;
    kill(gateway, SIGTERM);
    waitpid(gateway, &status, 0);
    std::printf("the gateway ended with status %d\n", status);
    return passed && status == 0 ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "gateway_test: %s\n", error.what());
    return 1;
}
