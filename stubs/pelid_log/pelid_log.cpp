#include "pelid_log.h"

#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <locale>
#include <utility>

namespace {

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
    const int error = errno;
    try {
        const std::string record = utcTime() + ' ' + std::to_string(m_level) + ' ' + m_module +
                                   ": " + onOneLine(m_message.str()) + " (" + m_file + ':' +
                                   std::to_string(m_line) + ")\n";
        [[maybe_unused]] const ssize_t ignored =
            ::write(STDERR_FILENO, record.data(), record.size());
    } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor has nobody to tell
    }
    errno = error;
}

std::stringstream& LOG_Helper::getSS() {
    return m_message;
}
