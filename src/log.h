#ifndef CORVEL_LOG_H
#define CORVEL_LOG_H

#include <pelid_log.h>

namespace corvel {

enum LogLevel { progress = 2, refusal = 3, failure = 4 };

/// Writes one record, in one expression: the log library may keep the path by reference, which is
/// valid until its end.
template <typename... Args>
void log(LogLevel level, const char* file, unsigned line, const Args&... args) {
    (LOG_Helper("corvel", level, file, line).getSS() << ... << args);
}

/// Writes one record of a failure and returns false. Give it no `errno`, which making the record
/// may change: copy it first.
template <typename... Args>
bool fail(const char* file, unsigned line, const Args&... args) {
    log(failure, file, line, args...);
    return false;
}

}  // namespace corvel

/// Logs the arguments after the level as one record, with the file and line of this statement.
#define CORVEL_LOG(level, ...) corvel::log(corvel::level, __FILE__, __LINE__, __VA_ARGS__)

/// Logs its arguments as one failure: `return CORVEL_FAIL(...)` returns false.
#define CORVEL_FAIL(...) corvel::fail(__FILE__, __LINE__, __VA_ARGS__)

#endif
