// What a frame costs through the library, against the bare system calls on the very same sockets:
// can0 to can1, and can2 to can3 where they exist. Commands are not run, so that initialising costs
// what the library itself does. Prints one table, and writes it as JSON: frames [FILE]

#include <benchmark/benchmark.h>
#include <linux/can.h>
#include <sys/select.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tn_corvel.h"

// The program's own definitions come before those of any library: no command is run.
extern "C" int system(const char*) {
    return 0;
}

namespace {

using Clock = std::chrono::steady_clock;

// Few enough for the receive queue of any kind of socket.
constexpr int batch = 8;

void require(bool condition, const char* what) {
    if (condition) return;
    fprintf(stderr, "frames: %s failed\n", what);
    exit(1);
}

// Initialises a device and gives the number of its socket, the lowest that was free.
int open(int device, bool canFd) {
    const int fd = dup(STDERR_FILENO);
    close(fd);
    require(corvel_initDLL(device, 500, canFd, 2000) == CORVEL_SUCCESS, "initialising");
    return fd;
}

// Two devices in one mode, for as long as it lives.
struct Pair {
    Pair(int from, int to, bool canFdMode)
        : sender(from),
          receiver(to),
          canFd(canFdMode),
          out(open(from, canFd)),
          in(open(to, canFd)) {}
    ~Pair() { corvel_freeDLL(sender), corvel_freeDLL(receiver); }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;

    void write() const {
        const _corvel_CanMsg msg{0x123, {1, 2, 3, 4, 5, 6, 7, 8}, 8, {}, 0, 0};
        require(corvel_writeMessage(sender, &msg) == CORVEL_SUCCESS, "writing");
    }
    void read() const {
        _corvel_CanMsg msg;
        require(corvel_readMessage(receiver, &msg, 1000) == CORVEL_SUCCESS, "reading");
    }
    void bareWrite() const {
        canfd_frame frame{};
        frame.can_id = 0x123;
        frame.len = 8;
        frame.flags = canFd ? CANFD_BRS : 0;
        for (uint8_t i = 0; i < 8; ++i) frame.data[i] = static_cast<uint8_t>(i + 1);
        const size_t size = canFd ? CANFD_MTU : CAN_MTU;
        require(::write(out, &frame, size) == static_cast<ssize_t>(size), "write");
    }
    void bareRead() const {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(in, &readable);
        timeval limit{1, 0};
        require(::select(in + 1, &readable, nullptr, nullptr, &limit) == 1, "select");
        canfd_frame frame;
        require(::read(in, &frame, sizeof frame) >= 16, "read");
        benchmark::DoNotOptimize(frame);
    }
    void trip() const { write(), read(); }
    void bareTrip() const { bareWrite(), bareRead(); }

    const int sender, receiver;
    const bool canFd;
    const int out, in;
};

using Step = void (Pair::*)() const;

// What is timed, and what goes before and after each batch of it to keep the queue as it was.
const struct {
    const char* name;
    Step before, timed, after;
} measurements[] = {
    {"write/bare", nullptr, &Pair::bareWrite, &Pair::bareRead},
    {"write/library", nullptr, &Pair::write, &Pair::bareRead},
    {"read/bare", &Pair::bareWrite, &Pair::bareRead, nullptr},
    {"read/library", &Pair::bareWrite, &Pair::read, nullptr},
    {"round trip/bare", nullptr, &Pair::bareTrip, nullptr},
    {"round trip/library", nullptr, &Pair::trip, nullptr},
};

void repeat(const Pair& pair, Step step) {
    for (int i = 0; step != nullptr && i < batch; ++i) (pair.*step)();
}

void addMode(const std::string& mode, bool canFd) {
    for (const auto& m : measurements) {
        benchmark::RegisterBenchmark((mode + m.name).c_str(), [m, canFd](benchmark::State& state) {
            const Pair pair(0, 1, canFd);
            for (auto _ : state) {
                repeat(pair, m.before);
                const auto start = Clock::now();
                repeat(pair, m.timed);
                const std::chrono::duration<double> took = Clock::now() - start;
                repeat(pair, m.after);
                state.SetIterationTime(took.count() / batch);
            }
        })->UseManualTime();
    }
}

// Keeps the medians, in nanoseconds by name.
class Medians : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.aggregate_name != "median") continue;
            const std::string& name = run.run_name.function_name;
            m_times[name] = run.GetAdjustedRealTime();
        }
    }
    std::map<std::string, double> m_times;
};

// Nanoseconds a round trip takes for each of `count` threads that work at once, on a pair each.
double threadsOnPairs(int count) {
    constexpr int trips = 20000;
    std::vector<std::thread> threads;
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([i] {
            const Pair pair(2 * i, 2 * i + 1, false);
            for (int trip = 0; trip < trips; ++trip) pair.trip();
        });
    }
    for (auto& thread : threads) thread.join();
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / trips;
}

// One row of the table, on screen and as an object in the file.
class Table {
public:
    explicit Table(const char* path) : m_file(path) { m_file << "["; }
    ~Table() { m_file << "\n]\n"; }
    void row(const std::string& name, double bare, double library, const char* unit) {
        printf("%-32s %11.1f %11.1f %7.3f  %s\n", name.c_str(), bare, library, library / bare,
               unit);
        object(name, unit) << ", \"bare\": " << bare << ", \"library\": " << library
                           << ", \"ratio\": " << library / bare << "}";
    }
    void figure(const std::string& name, double value, const char* unit) {
        printf("%-32s %23.2f          %s\n", name.c_str(), value, unit);
        object(name, unit) << ", \"library\": " << value << "}";
    }

private:
    // Begins an object, which the caller ends.
    std::ostream& object(const std::string& name, const char* unit) {
        m_file << m_separator << "\n  {\"name\": \"" << name << "\", \"unit\": \"" << unit << '"';
        m_separator = ",";
        return m_file;
    }
    std::ofstream m_file;
    const char* m_separator = "";
};

void timeCycles(Table& table) {
    constexpr int cycles = 200;
    const auto start = Clock::now();
    for (int i = 0; i < cycles; ++i) {
        open(0, false);
        corvel_freeDLL(0);
    }
    const std::chrono::duration<double, std::micro> took = Clock::now() - start;
    table.figure("initialise and release", took.count() / cycles, "us, commands apart");
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const char* const path = argc > 1 ? argv[1] : "/dev/null";
    addMode("classic/", false);
    addMode("CAN FD/", true);
    Medians medians;
    benchmark::RunSpecifiedBenchmarks(&medians);

    Table table(path);
    printf("\n%-32s %11s %11s %7s\n", "", "bare", "library", "ratio");
    for (const char* const mode : {"classic/", "CAN FD/"}) {
        for (const char* const what : {"write", "read", "round trip"}) {
            const std::string name = std::string(mode) + what;
            table.row(name, medians.m_times[name + "/bare"], medians.m_times[name + "/library"],
                      "ns");
        }
    }
    timeCycles(table);
    if (corvel_initDLL(2, 500, false, 0) == CORVEL_SUCCESS) {
        corvel_freeDLL(2);
        const double alone = threadsOnPairs(1);
        table.row("round trip, 1 and 2 threads", alone, threadsOnPairs(2), "ns");
    }
    return 0;
}
