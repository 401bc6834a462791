/// @file
/// Log records. A stand-in for the closed log library, with the part of its interface that is used
/// here: one record is one temporary LOG_Helper.
///
/// Two variables of the environment, read when the library is loaded:
/// - `PELID_LOG_LEVEL`: the lowest level written, 1 to 4; 0 writes nothing; 3 if not set
/// - `PELID_LOG_FILE`: a file that records are appended to, in the place of standard error; opened
///   for each record. While it cannot be opened, records go to standard error.
#ifndef PELID_LOG_H
#define PELID_LOG_H

#include <sstream>
#include <string>

/// One log record: made, filled through getSS(), and written when destroyed, as one line. Records
/// of several threads do not mix. Each object belongs to one thread.
class __attribute__((visibility("default"))) LOG_Helper {
public:
    LOG_Helper(std::string module, int level, const std::string& file, unsigned int line);
    LOG_Helper(const LOG_Helper&) = delete;
    LOG_Helper& operator=(const LOG_Helper&) = delete;

    /// Writes the record, if its level is written; drops it when memory runs out. Leaves errno as
    /// it is.
    ~LOG_Helper();

    /// Collects the message.
    std::stringstream& getSS();

private:
    std::string m_module;
    int m_level;
    std::string m_file;
    unsigned int m_line;
    std::stringstream m_message;
};

#endif
