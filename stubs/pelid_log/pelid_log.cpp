#include "pelid_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <locale>
#include <utility>

namespace {

// A record, or a complaint of the log's own. With nowhere to write it, it is lost.
void writeTo(int fd, const std::string& line) {
    [[maybe_unused]] const ssize_t ignored = ::write(fd, line.data(), line.size());
}

int lowestLevel() noexcept {
    const char* const text = ::secure_getenv("PELID_LOG_LEVEL");
    if (text == nullptr || *text == '\0') return 3;
    if (*text >= '0' && *text <= '4' && text[1] == '\0')
        return *text == '0' ? INT_MAX : *text - '0';
    writeTo(STDERR_FILENO, std::string("pelid_log: PELID_LOG_LEVEL=") + text +
                               " is no level from 0 to 4, 3 is used\n");
    return 3;
}

const char* filePath() noexcept {
    const char* const text = ::secure_getenv("PELID_LOG_FILE");
    return text == nullptr || *text == '\0' ? nullptr : ::strdup(text);
}

// Read when the library is loaded: an application has no other threads yet that could change its
// environment. Nothing destroys them, as exit handlers write records too.
const int lowest = lowestLevel();
const char* const path = filePath();
std::atomic_flag complained = ATOMIC_FLAG_INIT;

// Opens the file for each record. Kept open, its descriptor could be closed by an application that
// closes all it does not know, and the records would go to whatever gets the number next.
void writeRecord(const std::string& line) {
    if (path == nullptr) return writeTo(STDERR_FILENO, line);
    const int fd = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0666);
    if (fd < 0) {
        const int error = errno;
        if (!complained.test_and_set()) {
            writeTo(STDERR_FILENO, std::string("pelid_log: cannot append to ") + path + ": " +
                                       std::strerror(error) + '\n');
        }
        return writeTo(STDERR_FILENO, line);
    }
    writeTo(fd, line);
    ::close(fd);
}

std::string utcTime() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    ::gmtime_r(&now.tv_sec, &parts);
    char seconds[sizeof "2026-01-31T23:59:59"];
    std::strftime(seconds, sizeof seconds, "%FT%T", &parts);
    const std::string millis = std::to_string(1000 + now.tv_nsec / 1000000);
    return std::string(seconds) + '.' + millis.substr(1) + 'Z';
}

std::string onOneLine(const std::string& message) {
    std::string line;
    for (const char c : message) {
        if (c == '\n') {
            line += "\\n";
        } else {
            line += c;
        }
    }
    return line;
}

}  // namespace

LOG_Helper::LOG_Helper(std::string module, int level, const std::string& file, unsigned int line)
    : m_module(std::move(module)), m_level(level), m_file(file), m_line(line) {
    m_message.imbue(std::locale::classic());  // numbers as they are, whatever the application's
}

LOG_Helper::~LOG_Helper() {
    if (m_level < lowest) return;
    const int error = errno;
    try {
        writeRecord(utcTime() + ' ' + std::to_string(m_level) + ' ' + m_module + ": " +
                    onOneLine(m_message.str()) + " (" + m_file + ':' + std::to_string(m_line) +
                    ")\n");
    } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor has nobody to tell
    }
    errno = error;
}

std::stringstream& LOG_Helper::getSS() {
    return m_message;
}
