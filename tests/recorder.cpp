#include "recorder.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netlink/cache.h>
#include <netlink/route/link.h>
#include <pelid_log.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iomanip>
#include <new>
#include <regex>

// The next definition of a function that this file defines.
#define REAL(name) (reinterpret_cast<decltype(&(name))>(dlsym(RTLD_NEXT, #name)))
// True in a function that the library calls.
#define FROM_LIBRARY isLibrary(__builtin_return_address(0))

namespace {

RecorderTest* current;
// Not destroyed, as the library may be called after the end of main.
std::vector<std::string>& record = *new std::vector<std::string>;

thread_local long allocationsLeft = -1;
thread_local const std::string* path;  // the source file that the thread's log record names
thread_local const void* held;         // the library's mutex that the thread has locked
thread_local bool isWithin;            // the thread runs an action

// While it lives, no allocation of this thread is made to fail.
struct Memory {
    const long left = failAllocation(-1);
    ~Memory() { failAllocation(left); }
};

// While it lives, the thread runs an action.
struct Within {
    const void* const outerHeld = std::exchange(held, nullptr);
    const bool outer = std::exchange(isWithin, true);
    ~Within() { held = outerHeld, isWithin = outer; }
};

bool isLibrary(const void* caller) {
    Dl_info info;
    return dladdr(caller, &info) != 0 && strstr(info.dli_fname, "libtn_corvel") != nullptr;
}

const auto succeed = [] { return 0; };

// Records a call, and returns the answer that waits for it, or else the result of `usual`.
template <typename Usual, typename... Args>
int answer(const Usual& usual, const char* name, const Args&... args) {
    if (current == nullptr) return usual();
    const int error = errno;
    const Memory memory;
    std::ostringstream line;
    line << name;
    ((line << ' ' << args), ...);
    record.push_back(line.str());
    errno = error;
    auto& answers = current->m_answers;
    if (answers.empty() || line.str().find(answers.front().text) == std::string::npos)
        return usual();
    const Answer given = answers.front();
    answers.pop_front();
    if (given.action) {
        const Within within;
        given.action();
        return usual();
    }
    errno = given.error;
    return given.result;
}

// Stands for a CAN socket: a pipe of packets, with both ends in one descriptor.
int openPipe() {
    int ends[2];
    pipe(ends);
    const int opened = open(("/proc/self/fd/" + std::to_string(ends[0])).c_str(), O_RDWR);
    fcntl(opened, F_SETFL, O_DIRECT);
    for (const int end : ends) REAL(close)(end);
    const int fd = fcntl(opened, F_DUPFD, current->m_firstSocket);
    REAL(close)(opened);
    return fd;
}

}  // namespace

long failAllocation(long after) {
    return std::exchange(allocationsLeft, after);
}

// Not inlined, so that compilers do not take these for mismatched pairs.
#ifndef THREAD_SANITIZER  // it does not let a program replace its own
[[gnu::noinline]] void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return allocationsLeft >= 0 && allocationsLeft-- == 0 ? nullptr : malloc(size);
}
[[gnu::noinline]] void* operator new(size_t size) {
    if (void* memory = operator new(size, std::nothrow)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
    free(memory);
}
#endif

LOG_Helper::LOG_Helper(std::string module, int level, const std::string& file, unsigned int line)
    : m_module(std::move(module)), m_level(level), m_line(line) {
    path = &file;    // a log library may keep it like this until the record is written
    errno = ENOTTY;  // making a record may change errno
}
LOG_Helper::~LOG_Helper() {
    const bool wellFormed = m_module == "corvel" && path->rfind("src/", 0) == 0 && m_line > 0;
    answer(succeed, wellFormed ? "log" : "malformed log", m_level, m_message.rdbuf());
}
std::stringstream& LOG_Helper::getSS() {
    return m_message;
}

extern "C" {

int pthread_mutex_lock(pthread_mutex_t* mutex) {
    if (!FROM_LIBRARY) return REAL(pthread_mutex_lock)(mutex);
    if (held != nullptr) ADD_FAILURE() << "two locks at once";
    const int error = isWithin ? pthread_mutex_trylock(mutex) : REAL(pthread_mutex_lock)(mutex);
    if (error == 0) held = mutex;
    return error;
}
int pthread_mutex_unlock(pthread_mutex_t* mutex) {
    if (held == mutex) held = nullptr;
    return REAL(pthread_mutex_unlock)(mutex);
}

int system(const char* command) {
    return answer(succeed, "system", command);
}

nl_sock* nl_socket_alloc() {
    return answer(succeed, "nl_socket_alloc") == 0 ? REAL(nl_socket_alloc)() : nullptr;
}
int nl_connect(nl_sock*, int protocol) {
    return answer(succeed, "nl_connect", protocol);
}
int rtnl_link_alloc_cache(nl_sock*, int family, nl_cache** result) {
    const auto listLinks = [=] {
        nl_cache_alloc_name("route/link", result);
        for (const auto& [type, name] : current->m_links) {
            rtnl_link* const link = rtnl_link_alloc();
            if (*name != '\0') rtnl_link_set_name(link, name);
            rtnl_link_set_ifindex(link, 1 + nl_cache_nitems(*result));
            rtnl_link_set_arptype(link, type);
            nl_cache_add(*result, reinterpret_cast<nl_object*>(link));
            rtnl_link_put(link);
        }
        return 0;
    };
    return answer(listLinks, "rtnl_link_alloc_cache", family);
}
void nl_cache_free(nl_cache* cache) {
    answer(succeed, "nl_cache_free");
    REAL(nl_cache_free)(cache);
}
void nl_close(nl_sock*) {
    answer(succeed, "nl_close");
}
void nl_socket_free(nl_sock* socket) {
    answer(succeed, "nl_socket_free");
    REAL(nl_socket_free)(socket);
}

int socket(int domain, int type, int protocol) {
    if (domain != PF_CAN) return REAL(socket)(domain, type, protocol);
    return answer(openPipe, "socket", "PF_CAN", type == SOCK_RAW ? "SOCK_RAW" : "?",
                  protocol == CAN_RAW ? "CAN_RAW" : "?");
}
int ioctl(int fd, unsigned long request, ifreq* argument) {  // variadic in its header
    argument->ifr_ifindex = 77;
    return answer(succeed, "ioctl", fd, request == SIOCGIFINDEX ? "INDEX" : "?",
                  argument->ifr_name);
}
int bind(int fd, const sockaddr* address, socklen_t size) {
    current->m_boundTo = reinterpret_cast<const sockaddr_can*>(address)->can_ifindex;
    return answer(succeed, "bind", fd, Bytes{address, size});
}
int getsockname(int fd, sockaddr* address, socklen_t* size) {
    *reinterpret_cast<sockaddr_can*>(address) = {AF_CAN, current->m_boundTo, {}};
    return answer(succeed, "getsockname", fd, *size);
}
int setsockopt(int fd, int level, int option, const void* value, socklen_t size) {
    const char* name = option == CAN_RAW_FILTER ? "FILTER" : "?";
    if (option == CAN_RAW_FD_FRAMES) name = "FD_FRAMES";
    return answer(succeed, "setsockopt", fd, level == SOL_CAN_RAW ? name : "?", Bytes{value, size});
}
int close(int fd) {
    if (FROM_LIBRARY) answer(succeed, "close", fd);
    return REAL(close)(fd);
}

int select(int count, fd_set* in, fd_set* out, fd_set* failed, timeval* limit) {
    const auto wait = [=] { return REAL(select)(count, in, out, failed, limit); };
    return answer(wait, "select", count - 1, limit->tv_sec, limit->tv_usec);
}
int ppoll(pollfd* waiting, nfds_t count, const timespec* limit, const sigset_t* mask) {
    const int ready = REAL(ppoll)(waiting, count, limit, mask);
    return answer([=] { return ready; }, "ppoll", count, waiting->fd, waiting->events,
                  limit->tv_sec, limit->tv_nsec);
}
ssize_t read(int fd, void* data, size_t size) {
    const auto receive = [=] { return static_cast<int>(REAL(read)(fd, data, size)); };
    return FROM_LIBRARY ? answer(receive, "read", fd, size) : receive();
}
ssize_t write(int fd, const void* data, size_t size) {
    if (!FROM_LIBRARY) return REAL(write)(fd, data, size);
    const auto send = [=] { return fcntl(fd, F_GETFD) < 0 ? -1 : static_cast<int>(size); };
    return answer(send, "write", fd, Bytes{data, size});
}

}  // extern "C"

std::ostream& operator<<(std::ostream& out, const Bytes& bytes) {
    std::ostringstream text;
    text << std::hex << std::uppercase << std::setfill('0');
    for (size_t i = 0; i < bytes.size; ++i) {
        text << std::setw(2) << +static_cast<const uint8_t*>(bytes.data)[i];
    }
    return out << bytes.size << ':' << std::regex_replace(text.str(), std::regex("(00)*$"), "");
}

// Fills the part of the stack that the next call uses.
[[gnu::noinline]] static void soilStack() {
    volatile char rubbish[4096];
    for (volatile char& byte : rubbish) byte = 0x5A;
}

// The lines of a call that match a regular expression, each after a separator.
static std::string run(const std::function<int()>& call, const char* shown, const char* separator) {
    record.clear();
    soilStack();
    record.push_back("= " + std::to_string(call()));
    std::string lines;
    for (const std::string& line : record) {
        if (std::regex_search(line, std::regex(shown))) lines += separator + line;
    }
    return lines;
}

std::string callsOf(const std::function<int()>& call) {
    return run(call, "", "\n") + '\n';
}

std::string outcome(const std::function<int()>& call) {
    return run(call, "^(log|write|close|=)", "; ").substr(2);
}

static long openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

RecorderTest::RecorderTest() : m_descriptors(openDescriptors()) {
    current = this;
}

RecorderTest::~RecorderTest() {
    for (const Answer& left : m_answers) ADD_FAILURE() << "no call was: " << left.text;
    for (const int32_t index : {0, 1}) corvel_freeDLL(index);
    current = nullptr;
    EXPECT_EQ(openDescriptors(), m_descriptors) << "leaked";
}
