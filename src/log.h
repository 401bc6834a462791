#ifndef CORVEL_LOG_H
#define CORVEL_LOG_H

#include <pelid_log.h>

namespace corvel {

enum LogLevel { progress = 2, refusal = 3, failure = 4 };

/// Writes one record and returns false, the result of what failed. Takes the words by value, since
/// making a record may change errno.
template <typename... Words>  // NOLINTNEXTLINE(performance-unnecessary-value-param): as said
bool log(LogLevel level, const char* file, unsigned line, Words... words) {
    LOG_Helper record("corvel", level, file, line);
    (record.getSS() << ... << words);
    return false;
}

}  // namespace corvel

/// One record of the words that follow the level, with the file and line of this statement. Gives
/// false.
#define CORVEL_LOG(level, ...) corvel::log(corvel::level, __FILE__, __LINE__, __VA_ARGS__)

#endif
