/// @file
/// Log records. A stand-in for the closed log library, with the part of its interface that
/// libtn_corvel uses: one record is one temporary LOG_Helper. Writes to standard error;
/// tn_corvel(3) describes PELID_LOG_LEVEL.
#ifndef PELID_LOG_H
#define PELID_LOG_H

#include <sstream>
#include <string>

/// One log record: filled through getSS(), and written as one line when it is destroyed. Records
/// of several threads do not mix. Each object belongs to one thread.
class __attribute__((visibility("default"))) LOG_Helper {
public:
    LOG_Helper(std::string module, int level, const std::string& file, unsigned int line);
    LOG_Helper(const LOG_Helper&) = delete;
    LOG_Helper& operator=(const LOG_Helper&) = delete;

    /// Writes the record if its level is high enough; drops it if memory runs out. Keeps errno.
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
