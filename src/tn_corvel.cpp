#include "tn_corvel.h"

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "corvel/driverforsocketcan.h"
#include "log.h"

using corvel::IDriver;
using corvel::IInterface;

// Callers build and read the record in their own code.
static_assert(sizeof(_corvel_CanMsg) == 24 && alignof(_corvel_CanMsg) == 4);
static_assert(offsetof(_corvel_CanMsg, id) == 0 && offsetof(_corvel_CanMsg, data) == 4);
static_assert(offsetof(_corvel_CanMsg, len) == 12 && offsetof(_corvel_CanMsg, reserved) == 13);
static_assert(offsetof(_corvel_CanMsg, remote) == 20 && offsetof(_corvel_CanMsg, extended) == 21);

namespace {

std::mutex m_mutex;  // guards what lasts; never held while a driver or a handle is called

// Keeps a value where nothing destroys it. It is emptied when the library is unloaded or the
// process ends, but stays usable: other threads and exit handlers may still call then.
template <typename T>
T& lasting(T value) {
    alignas(T) static unsigned char storage[sizeof(T)];
    static T& kept = *new (storage) T(std::move(value));
    static const struct Emptier {
        ~Emptier() {
            T last;
            std::lock_guard<std::mutex> lock(m_mutex);
            last.swap(kept);
        }
    } emptier;
    return kept;
}

auto& m_devMap = lasting(std::map<unsigned int, std::shared_ptr<IInterface>>());

std::shared_ptr<IDriver> copy(const std::shared_ptr<IDriver>& driver) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return driver;
}

CORVEL_COLD void logRefusal(const char* text) {
    CORVEL_LOG(refusal) << text;
}

// For a null record: logs it and gives back the status.
CORVEL_COLD int32_t logFailure(const char* text, int32_t status) {
    CORVEL_LOG(failure) << text;
    return status;
}

// The device registered under devIndex, or an empty pointer after logging `refusal`.
std::shared_ptr<IInterface> lookUp(int32_t devIndex, const char* refusal) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_devMap.find(static_cast<unsigned int>(devIndex));
    if (found != m_devMap.end()) return found->second;
    logRefusal(refusal);
    return nullptr;
}

// The same, and takes it out of the registry.
std::shared_ptr<IInterface> takeOut(int32_t devIndex, const char* refusal) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto entry = m_devMap.extract(static_cast<unsigned int>(devIndex));
    if (!entry.empty()) return entry.mapped();
    logRefusal(refusal);
    return nullptr;
}

// Makes an open device available to the other functions. An entry that an overlapping
// initialisation of the same index has made is replaced.
void registerDevice(unsigned int index, const std::shared_ptr<IInterface>& device) {
    CORVEL_LOG(progress) << "Successfully opened Corvel.";
    std::lock_guard<std::mutex> lock(m_mutex);
    m_devMap[index] = device;
}

}  // namespace

int32_t corvel_initDLL(int32_t devIndex, uint32_t bitrate, bool canFd, uint32_t dbitrate) {
    const auto index = static_cast<unsigned int>(devIndex);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_devMap.count(index) != 0) {
            CORVEL_LOG(failure) << "Failed open Corvel.The device is already open.";
            return CORVEL_NO_DEVICE;
        }
    }

    static std::shared_ptr<IDriver>& driver =
        lasting<std::shared_ptr<IDriver>>(std::make_shared<corvel::DriverForSocketCan>());
    const std::shared_ptr<IDriver> used = copy(driver);
    if (!used) return CORVEL_NO_DEVICE;  // the process is ending
    std::vector<std::shared_ptr<IInterface>> devices;
    if (!used->scanDevices(devices)) {
        CORVEL_LOG(failure) << "Scan failed.";
        return CORVEL_NO_DEVICE;
    }
    const std::shared_ptr<IInterface> device = used->getDeviceByIndex(index, devices);
    if (!device) {
        CORVEL_LOG(failure) << "Open Corvel failed: device does not exist. devIndex:" << devIndex;
        return CORVEL_NO_DEVICE;
    }
    if (!device->open(bitrate * 1000, canFd, dbitrate * 1000)) {
        CORVEL_LOG(failure) << "Open Corvel failed.";
        return CORVEL_OPEN_FAILED;
    }
    try {
        registerDevice(index, device);
    } catch (...) {
        device->close();  // out of memory: nobody else could close it
        throw;
    }
    return CORVEL_SUCCESS;
}

int32_t corvel_freeDLL(int32_t devIndex) {
    const auto device = takeOut(devIndex, "Free failed,No such device");
    if (!device) return CORVEL_NO_DEVICE;
    device->close();
    CORVEL_LOG(progress) << "Free Device.";
    return CORVEL_SUCCESS;
}

// These two carry every frame; flattened, they are one function down to the system calls.

[[gnu::flatten]] int32_t corvel_writeMessage(int32_t devIndex, const _corvel_CanMsg* msg) {
    const auto device = lookUp(devIndex, "Write failed,No such device");
    if (!device) return CORVEL_NO_DEVICE;
    if (msg == nullptr) return logFailure("Write failed,msg is null", CORVEL_NOT_WRITTEN);
    return device->writeMessage(*msg) ? CORVEL_SUCCESS : CORVEL_NOT_WRITTEN;
}

[[gnu::flatten]] int32_t corvel_readMessage(int32_t devIndex, _corvel_CanMsg* msg,
                                            uint32_t timeout) {
    const auto device = lookUp(devIndex, "Read failed,No such device");
    if (!device) return CORVEL_NO_DEVICE;
    if (msg == nullptr) return logFailure("Read failed,msg is null", CORVEL_NO_FRAME);
    return device->readMessage(*msg, timeout) ? CORVEL_SUCCESS : CORVEL_NO_FRAME;
}
