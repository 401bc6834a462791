#include "recorder.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/can.h>
#include <net/if.h>
#include <netlink/cache.h>
#include <netlink/route/link.h>
#include <pelid_log.h>
#include <poll.h>
#include <stdarg.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <iomanip>
#include <regex>

// The function that one of this file stands in for.
#define REAL(name) (reinterpret_cast<decltype(&(name))>(dlsym(RTLD_NEXT, #name)))
// True in a function that the library has called.
#define FROM_LIBRARY isLibrary(__builtin_return_address(0))

namespace {

System* current;
std::string record;
const std::string logName = "log";
std::string locksTaken, locksHeld;

// While it lives, no allocation of this thread is made to fail.
struct Memory {
    const long left = failAllocation(-1);
    ~Memory() { failAllocation(left); }
};

bool isLibrary(const void* caller) {
    Dl_info info;
    return dladdr(caller, &info) != 0 && strstr(info.dli_fname, "libtn_corvel") != nullptr;
}

bool isOpen(int fd) {
    return REAL(fcntl)(fd, F_GETFD) >= 0;
}

// Records a call, runs its hook, and gives what is ordered for it, or else its usual result.
template <typename... Words>
int answer(int usual, const std::string& name, const Words&... words) {
    const int usualError = errno;
    const Memory memory;
    std::ostringstream line;
    line << name;
    ((line << ' ' << words), ...);
    const auto isMeant = [&](const std::string& text) {
        return name != logName && line.str().find(text) != std::string::npos;
    };
    for (const auto& [text, hook] : current->hooks) {
        if (isMeant(text)) hook();
    }
    record += locksTaken + '/' + locksHeld + ' ' + line.str() + '\n';
    const auto order = std::find_if(current->orders.begin(), current->orders.end(),
                                    [&](const auto& ordered) { return isMeant(ordered.text); });
    errno = usualError;
    if (order == current->orders.end()) return usual;
    const System::Order found = *order;
    current->orders.erase(order);
    errno = found.error;
    return found.result;
}

}  // namespace

LOG_Helper::LOG_Helper(std::string module, int level, const std::string& file, unsigned int line)
    : m_module(std::move(module)), m_level(level), m_file(file), m_line(line) {
    errno = ENOTTY;  // making a record may change errno
}
LOG_Helper::~LOG_Helper() {
    const Memory memory;
    const bool wellFormed = m_module == "corvel" && m_file.rfind("src/", 0) == 0 && m_line > 0;
    const std::string message = std::regex_replace(m_message.str(), std::regex("\n"), "\\n");
    answer(0, logName, m_level, wellFormed ? message : "malformed: " + message);
}
std::stringstream& LOG_Helper::getSS() {
    return m_message;
}

extern "C" {

int pthread_mutex_lock(pthread_mutex_t* mutex) {
    const Memory memory;
    if (FROM_LIBRARY && current != nullptr) {
        auto& locks = current->locks;
        const int next = 'a' + static_cast<int>(locks.size());
        const char name = locks.emplace(mutex, static_cast<char>(next)).first->second;
        locksTaken += name, locksHeld += name;
    }
    return REAL(pthread_mutex_lock)(mutex);
}
int pthread_mutex_unlock(pthread_mutex_t* mutex) {
    if (current != nullptr && current->locks.count(mutex) != 0) {  // perhaps by a tail call
        locksHeld.erase(locksHeld.find(current->locks[mutex]), 1);
    }
    return REAL(pthread_mutex_unlock)(mutex);
}

// Calls that are recorded and answered, no more.
#define STAND_IN(name, parameters, ...)       \
    int name parameters {                     \
        const Memory memory;                  \
        return answer(0, #name, __VA_ARGS__); \
    }
STAND_IN(system, (const char* command), command)
STAND_IN(nl_connect, (nl_sock*, int protocol), protocol)
STAND_IN(bind, (int fd, const sockaddr* address, socklen_t size), fd, hexadecimal(address, size))
STAND_IN(setsockopt, (int fd, int level, int option, const void* value, socklen_t size), fd, level,
         option, hexadecimal(value, size))

nl_sock* nl_socket_alloc() {
    return answer(0, "nl_socket_alloc") == 0 ? REAL(nl_socket_alloc)() : nullptr;
}
void nl_close(nl_sock*) {
    answer(0, "nl_close");
}
int rtnl_link_alloc_cache(nl_sock*, int family, nl_cache** result) {
    const int error = answer(0, "rtnl_link_alloc_cache", family);
    if (error < 0) return error;
    nl_cache_alloc_name("route/link", result);
    for (const auto& [type, name] : current->links) {
        rtnl_link* const link = rtnl_link_alloc();
        if (*name != '\0') rtnl_link_set_name(link, name);
        rtnl_link_set_ifindex(link, 1 + nl_cache_nitems(*result));
        rtnl_link_set_arptype(link, type);
        nl_cache_add(*result, reinterpret_cast<nl_object*>(link));
        rtnl_link_put(link);
    }
    return 0;
}

int socket(int domain, int type, int protocol) {
    const int file = open("/dev/null", O_RDWR);
    const int usual = dup2(file, current->nextSocket++);
    REAL(close)(file);
    const int fd = answer(usual, "socket", domain, type, protocol);
    if (fd != usual) REAL(close)(usual);
    return fd;
}
int ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    auto* const argument = va_arg(arguments, ifreq*);
    va_end(arguments);
    argument->ifr_ifindex = 77;
    return answer(0, "ioctl", fd, request, argument->ifr_name);
}
int getsockname(int, sockaddr* address, socklen_t*) {
    auto* const can = reinterpret_cast<sockaddr_can*>(address);
    can->can_family = AF_CAN;
    can->can_ifindex = current->boundTo;
    return answer(0, "getsockname");
}
int close(int fd) {
    if (FROM_LIBRARY) answer(0, "close", fd);
    return REAL(close)(fd);
}

int select(int count, fd_set* in, fd_set*, fd_set*, timeval* limit) {
    fd_set alone{};
    FD_SET(count - 1, &alone);
    const int fd = memcmp(in, &alone, sizeof alone) == 0 ? count - 1 : -1;
    if (!isOpen(fd)) return -1;
    return answer(!current->frames.empty(), "select", fd, limit->tv_sec, limit->tv_usec);
}
int ppoll(pollfd* waiting, nfds_t count, const timespec* limit, const sigset_t*) {
    const timespec now{};
    REAL(ppoll)(waiting, count, &now, nullptr);  // fails or says that there is something to read
    const bool ready = waiting->revents == POLLNVAL || !current->frames.empty();
    return answer(ready, "ppoll", count, waiting->fd, waiting->events, limit->tv_sec,
                  limit->tv_nsec);
}
ssize_t read(int fd, void* data, size_t size) {
    if (!FROM_LIBRARY) return REAL(read)(fd, data, size);
    const Memory memory;
    const int ordered = answer(1000, "read", fd, size);
    if (ordered != 1000) return ordered;
    const std::string frame = current->frames.front();
    current->frames.pop_front();
    memcpy(data, frame.data(), frame.size());
    return static_cast<ssize_t>(frame.size());
}
ssize_t write(int fd, const void* data, size_t size) {
    if (!FROM_LIBRARY) return REAL(write)(fd, data, size);
    if (!isOpen(fd)) return -1;
    const Memory memory;
    const std::regex trailingZeros("(00)*$");
    return answer(static_cast<int>(size), "write", fd, size,
                  std::regex_replace(hexadecimal(data, size), trailingZeros, ""));
}

}  // extern "C"

std::string hexadecimal(const void* data, size_t size) {
    std::ostringstream text;
    text << std::hex << std::uppercase << std::setfill('0');
    for (size_t i = 0; i < size; ++i) text << std::setw(2) << +static_cast<const uint8_t*>(data)[i];
    return text.str();
}

std::string bytes(const std::string& hexadecimal, size_t size) {
    std::string result(size, '\0');
    for (size_t i = 0; 2 * i < hexadecimal.size(); ++i) {
        result[i] = static_cast<char>(std::stoi(hexadecimal.substr(2 * i, 2), nullptr, 16));
    }
    return result;
}

std::string during(const std::function<int()>& call) {
    record = "\n", locksTaken.clear();
    answer(0, "=", call());
    return record;
}

std::string outcome(const std::function<int()>& call) {
    const std::string all = std::regex_replace(during(call), std::regex("\n[a-z]*/[a-z]* "), "\n");
    return std::regex_replace(all, std::regex("\n(?!log|write|close|=|$)[^\n]*"), "");
}

static long openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

RecorderTest::RecorderTest() : m_descriptors(openDescriptors()) {
    current = &m_system;
}

RecorderTest::~RecorderTest() {
    for (const int32_t index : {0, 1}) corvel_freeDLL(index);
    current = nullptr;
    EXPECT_EQ(openDescriptors(), m_descriptors) << "leaked";
}
