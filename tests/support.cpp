#include "support.h"

#include <dirent.h>
#include <pelid_log.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <mutex>

namespace {

std::mutex logMutex;
Log recorded;
std::string commandFile;

}  // namespace

// Definitions of the program come before those of any library.

LOG_Helper::LOG_Helper(std::string module, int level, const std::string& file, unsigned int line)
    : m_module(std::move(module)), m_level(level), m_file(file), m_line(line) {
    errno = ENOTTY;  // making a record may change errno
}

LOG_Helper::~LOG_Helper() {
    const long left = failAllocation(-1);
    const bool wellFormed = m_module == "corvel" && m_file.rfind("src/", 0) == 0 && m_line > 0;
    std::lock_guard<std::mutex> lock(logMutex);
    recorded.emplace_back(m_level, (wellFormed ? "" : "malformed: ") + m_message.str());
    failAllocation(left);
}

std::stringstream& LOG_Helper::getSS() {
    return m_message;
}

Log takeLog() {
    std::lock_guard<std::mutex> lock(logMutex);
    return std::exchange(recorded, {});
}

Lines takeCommands() {
    Lines lines;
    std::ifstream file(commandFile);
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    truncate(commandFile.c_str(), 0);
    return lines;
}

int openDescriptors() {
    int count = 0;
    DIR* const folder = opendir("/proc/self/fd");
    while (readdir(folder) != nullptr) ++count;
    closedir(folder);
    return count;
}

int main(int argc, char** argv) {
    // A bus of this process's own; SIMCAN_FOLDER comes from the build.
    const std::string bus = ":" + std::to_string(getpid());
    std::string links;
    for (const char* name : {"can10", "can01", "CAN1", "vcan0", "can1", "can0"}) {
        links += name + bus + ' ';
    }
    commandFile = testing::TempDir() + "corvel-commands" + bus;
    std::ofstream{commandFile};
    setenv("SIMCAN", links.c_str(), 1);
    setenv("SIMCAN_SUDO_LOG", commandFile.c_str(), 1);
    setenv("PATH", (SIMCAN_FOLDER ":" + std::string(getenv("PATH"))).c_str(), 1);
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    unlink(commandFile.c_str());
    return result;
}
