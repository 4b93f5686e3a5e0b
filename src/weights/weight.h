#pragma once
// One loaded model: an ordered map from record name to typed value, read from an enciphered
// ("sw") or plain ("vlw") weight file, or from an enciphered blob in memory.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "utils/export.h"
#include "utils/matrix.h"
#include "weights/map_object.h"

namespace SONEL::WEIGHTS {

// Type code that follows each record name in the stream.
enum WeightRecordType : uint32_t {
    kRecordFloat = 0,          // float
    kRecordUInt = 1,           // unsigned int (32-bit)
    kRecordString = 2,         // std::string
    kRecordVector = 3,         // std::vector<float>
    kRecordMatrix = 4,         // CONTAINERS::Matrix
    kRecordVectorVector = 5,   // std::vector<std::vector<float>>
    kRecordMatrixVector = 6,   // std::vector<CONTAINERS::Matrix>
};

class SONEL_EXPORT Weight {
public:
    // Loads by extension: "sw" enciphered, "vlw" plain. False on failure, with message() set.
    // Every load starts from an empty weight; a failed one leaves it empty. A float record
    // holding NaN or an infinity fails the load, with the record's name in the message.
    bool load(const std::wstring& path);
    // Loads an enciphered blob (same layout as an "sw" file).
    bool loadBlob(const void* data, size_t size);
    // Parses a plain record stream (the body of a "vlw" file).
    bool loadStream(const uint8_t* data, size_t size);

    const std::string& message() const { return message_; }
    const CONTAINERS::ObjectMap& records() const { return records_; }

    // Typed lookup: null when absent or stored with another type.
    template <typename T>
    const T* find(const std::string& name) const {
        return CONTAINERS::findValue<T>(records_, name);
    }
    // Typed lookup that throws "ERROR DATA With Key: <name> doesn't exists" when absent.
    template <typename T>
    const T& get(const std::string& name) const {
        const T* value = find<T>(name);
        if (!value)
            throw UTILS::SonelException("ERROR DATA With Key: " + name + " doesn't exists",
                                        "src/weights/weight", __LINE__, "get");
        return *value;
    }
    template <typename T>
    void set(const std::string& name, T value) {
        records_[name] = std::make_shared<CONTAINERS::Any<T>>(std::move(value));
    }

private:
    // Drops every record, keeps `message` as the load error and reports failure.
    bool fail(std::string message);

    CONTAINERS::ObjectMap records_;
    std::string message_;
};

// (sampling rate in Hz, frame duration in ms) from SampleRate and FrameLength; throws
// SonelException when either is missing or outside the supported model geometries.
SONEL_EXPORT std::pair<unsigned, unsigned> getWeightInfo(const Weight& weight);
// The Version string record; throws SonelException when it is missing.
SONEL_EXPORT std::string getWeightVersion(const Weight& weight);

}  // namespace SONEL::WEIGHTS
