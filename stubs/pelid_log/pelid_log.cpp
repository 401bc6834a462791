#include "pelid_log.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <locale>
#include <utility>

namespace {

void writeToStandardError(const std::string& line) {
    [[maybe_unused]] const ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
}

int lowestLevel() noexcept {
    const char* const text = ::secure_getenv("PELID_LOG_LEVEL");
    if (text == nullptr || *text == '\0') return 3;
    if (*text >= '0' && *text <= '4' && text[1] == '\0')
        return *text == '0' ? INT_MAX : *text - '0';
    writeToStandardError(std::string("pelid_log: PELID_LOG_LEVEL=") + text +
                         " is no level from 0 to 4, 3 is used\n");
    return 3;
}

// Read when the library is loaded: an application has no other threads yet that could change its
// environment.
const int lowest = lowestLevel();

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
    m_message.imbue(std::locale::classic());  // the application's may group digits
}

LOG_Helper::~LOG_Helper() {
    if (m_level < lowest) return;
    const int error = errno;
    try {
        writeToStandardError(utcTime() + ' ' + std::to_string(m_level) + ' ' + m_module + ": " +
                             onOneLine(m_message.str()) + " (" + m_file + ':' +
                             std::to_string(m_line) + ")\n");
    } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor cannot report it
    }
    errno = error;
}

std::stringstream& LOG_Helper::getSS() {
    return m_message;
}
