#ifndef CORVEL_LOG_H
#define CORVEL_LOG_H

#include <pelid_log.h>

namespace corvel {

enum LogLevel { progress = 2, refusal = 3, failure = 4 };

// Both take the words by value, since making a record may change errno.
// NOLINTBEGIN(performance-unnecessary-value-param)

/// Writes one record, in one expression: the log library may keep the path by reference, which is
/// valid until its end.
template <typename... Words>
void log(LogLevel level, const char* file, unsigned line, Words... words) {
    (LOG_Helper("corvel", level, file, line).getSS() << ... << words);
}

/// The same for a failure. Returns false, the result of what failed.
template <typename... Words>
bool fail(const char* file, unsigned line, Words... words) {
    log(failure, file, line, words...);
    return false;
}

// NOLINTEND(performance-unnecessary-value-param)

}  // namespace corvel

/// One record of the words that follow the level, with the file and line of this statement.
#define CORVEL_LOG(level, ...) corvel::log(corvel::level, __FILE__, __LINE__, __VA_ARGS__)

/// One record of the words that say what failed: `return CORVEL_FAIL(...)` logs and returns false.
#define CORVEL_FAIL(...) corvel::fail(__FILE__, __LINE__, __VA_ARGS__)

#endif
