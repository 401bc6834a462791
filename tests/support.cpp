#include "support.h"

#include <dirent.h>
#include <dlfcn.h>
#include <netlink/socket.h>
#include <pelid_log.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <new>

namespace {

std::mutex logMutex;
Log recorded;
std::atomic<long> selects, reads, writes, allocations;
thread_local long allocationsLeft = -1;
std::string commandFile;

template <typename Function>
Function* next(const char* name, Function*) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

bool noNetlinkSocket = false;

// Definitions of the program come before those of any library.

LOG_Helper::LOG_Helper(std::string module, int level, const std::string& file, unsigned int line)
    : m_module(std::move(module)), m_level(level), m_file(file), m_line(line) {
    errno = ENOTTY;  // making a record may change errno
}

LOG_Helper::~LOG_Helper() {
    const long left = std::exchange(allocationsLeft, -1);
    const bool wellFormed = m_module == "corvel" && m_file.rfind("src/", 0) == 0 && m_line > 0;
    std::lock_guard<std::mutex> lock(logMutex);
    recorded.emplace_back(m_level, (wellFormed ? "" : "malformed: ") + m_message.str());
    allocationsLeft = left;
}

std::stringstream& LOG_Helper::getSS() {
    return m_message;
}

extern "C" {
int select(int count, fd_set* in, fd_set* out, fd_set* except, timeval* limit) {
    ++selects;
    static const auto real = next("select", &select);
    return real(count, in, out, except, limit);
}
ssize_t read(int fd, void* data, size_t size) {
    ++reads;
    static const auto real = next("read", &read);
    return real(fd, data, size);
}
ssize_t write(int fd, const void* data, size_t size) {
    ++writes;
    static const auto real = next("write", &write);
    return real(fd, data, size);
}
nl_sock* nl_socket_alloc() {
    static const auto real = next("nl_socket_alloc", &nl_socket_alloc);
    return noNetlinkSocket ? nullptr : real();
}
}

#ifndef THREAD_SANITIZER
void* operator new(size_t size) {
    ++allocations;
    if (allocationsLeft >= 0 && allocationsLeft-- == 0) throw std::bad_alloc();
    if (void* memory = malloc(size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    free(memory);
}
#endif

Log takeLog() {
    std::lock_guard<std::mutex> lock(logMutex);
    return std::exchange(recorded, {});
}

std::vector<std::string> takeCommands() {
    std::vector<std::string> lines;
    std::ifstream file(commandFile);
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    truncate(commandFile.c_str(), 0);
    return lines;
}

Counts counts() {
    return {selects, reads, writes, allocations};
}

void failAllocation(long after) {
    allocationsLeft = after;
}

bool allocationFailed() {
    return std::exchange(allocationsLeft, -1) < 0;
}

int openDescriptors() {
    int count = 0;
    DIR* const folder = opendir("/proc/self/fd");
    while (readdir(folder) != nullptr) ++count;
    closedir(folder);
    return count;
}

SocketPair::SocketPair() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM, 0, ends) != 0) abort();
    near = ends[0];
    far = ends[1];
}

SocketPair::~SocketPair() {
    close(near), close(far);
}

corvel::IInterface::DeviceDesc SocketPair::desc() const {
    corvel::IInterface::DeviceDesc desc;
    desc.fd = near;
    return desc;
}

int main(int argc, char** argv) {
    // A bus of this process's own; SIMCAN_FOLDER comes from the build.
    const std::string bus = ":" + std::to_string(getpid());
    const std::string links = "can10" + bus + " can01" + bus + " CAN1" + bus + " vcan0" + bus +
                              " can1" + bus + " can0" + bus;
    commandFile = testing::TempDir() + "corvel-commands" + bus;
    std::ofstream{commandFile};
    setenv("SIMCAN", links.c_str(), 1);
    setenv("SIMCAN_SUDO_LOG", commandFile.c_str(), 1);
    setenv("PATH", (SIMCAN_FOLDER ":" + std::string(getenv("PATH"))).c_str(), 1);
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    unlink(commandFile.c_str());
    return result;
}
