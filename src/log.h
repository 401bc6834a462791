#ifndef CORVEL_LOG_H
#define CORVEL_LOG_H

#include <pelid_log.h>

namespace corvel {

enum LogLevel { progress = 2, refusal = 3, failure = 4 };

}  // namespace corvel

/// Marks a function that only logs a failure: kept out of the path of a frame.
#define CORVEL_COLD [[gnu::cold, gnu::noinline]]

/// The stream of one log record, which is written at the end of the statement. Making it allocates,
/// so a statement that reports errno saves it beforehand.
#define CORVEL_LOG(level) LOG_Helper("corvel", corvel::level, __FILE__, __LINE__).getSS()

#endif
