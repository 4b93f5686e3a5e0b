#include "weights/weight.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

#include "utils/crypto.h"
#include "utils/wide_string.h"

// Record streams and cipher words are little-endian and are copied into host words as they are;
// both supported targets (x86-64, arm64) are little-endian.
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "weight files are read with little-endian host words"
#endif

namespace SONEL::WEIGHTS {

namespace {

static_assert(std::is_same_v<uint32_t, unsigned int>, "type code 1 is stored as unsigned int");

constexpr char kCantOpen[] = "Can't open weight file!";
constexpr char kCorrupted[] = "Corrupted weight file!";
constexpr char kBadHeader[] = "Corrupted weight header!";
constexpr char kInvalidFile[] = "Invalid weight file!";

// Enciphered layout: 16-byte plain header, then a body whose first 16 bytes (after deciphering)
// hold the pad count P at offset 4; the record stream follows.
constexpr size_t kHeaderBytes = 16;
constexpr size_t kBodyPrefixBytes = 16;
constexpr size_t kPadCountOffset = 4;
constexpr unsigned char kMagic[4] = {'S', 'M', 'W', 0};

// Reads the record stream front to back. Every read checks the bytes that remain before it
// allocates, so a count larger than the rest of the data reads as "the data ended here" and never
// reaches the allocator; the largest allocation is bounded by the input size.
class Cursor {
public:
    Cursor(const uint8_t* data, size_t size) : at_(data), end_(data + size) {}

    size_t remaining() const { return static_cast<size_t>(end_ - at_); }
    // Whether a float read since the last call was NaN or infinite; clears the mark.
    bool takeNonFinite() { return std::exchange(nonFinite_, false); }

    bool readU32(uint32_t& value) {
        if (remaining() < 4) return false;
        value = static_cast<uint32_t>(at_[0]) | static_cast<uint32_t>(at_[1]) << 8 |
                static_cast<uint32_t>(at_[2]) << 16 | static_cast<uint32_t>(at_[3]) << 24;
        at_ += 4;
        return true;
    }
    bool readFloat(float& value) {
        uint32_t bits;
        if (!readU32(bits)) return false;
        std::memcpy(&value, &bits, sizeof value);
        nonFinite_ |= !std::isfinite(value);
        return true;
    }
    bool readString(std::string& value, uint32_t length) {
        if (length > remaining()) return false;
        value.assign(reinterpret_cast<const char*>(at_), length);
        at_ += length;
        return true;
    }
    // `count` is 64-bit so a matrix's rows × columns cannot wrap before the check.
    bool readFloats(std::vector<float>& values, uint64_t count) {
        if (count > remaining() / sizeof(float)) return false;
        values.resize(static_cast<size_t>(count));
        if (count == 0) return true;  // an empty vector has no buffer to copy into
        std::memcpy(values.data(), at_, values.size() * sizeof(float));
        at_ += values.size() * sizeof(float);
        nonFinite_ |=
            std::any_of(values.begin(), values.end(), [](float v) { return !std::isfinite(v); });
        return true;
    }
    bool readVector(std::vector<float>& values) {
        uint32_t count;
        return readU32(count) && readFloats(values, count);
    }
    bool readMatrix(CONTAINERS::Matrix& matrix) {
        uint32_t rows, columns;
        if (!readU32(rows) || !readU32(columns)) return false;
        if (!readFloats(matrix.data, static_cast<uint64_t>(rows) * columns)) return false;
        matrix.rows = rows;
        matrix.columns = columns;
        return true;
    }
    // A list count must leave room for each element's own counts (4 bytes per vector, 8 per
    // matrix); elements are then read and checked one by one, so memory grows only with data
    // that is really there.
    template <typename T, typename ReadOne>
    bool readList(std::vector<T>& list, size_t minElementBytes, ReadOne readOne) {
        uint32_t count;
        if (!readU32(count) || count > remaining() / minElementBytes) return false;
        for (uint32_t i = 0; i < count; ++i) {
            T element;
            if (!(this->*readOne)(element)) return false;
            list.push_back(std::move(element));
        }
        return true;
    }

private:
    const uint8_t* at_;
    const uint8_t* end_;
    bool nonFinite_ = false;
};

template <typename T>
std::shared_ptr<CONTAINERS::MapObject> hold(T value) {
    return std::make_shared<CONTAINERS::Any<T>>(std::move(value));
}

// The body of a known record type, or null when the data ends inside it.
std::shared_ptr<CONTAINERS::MapObject> readBody(Cursor& in, uint32_t type) {
    switch (type) {
        case kRecordFloat: {
            float value;
            return in.readFloat(value) ? hold(value) : nullptr;
        }
        case kRecordUInt: {
            uint32_t value;
            return in.readU32(value) ? hold<unsigned int>(value) : nullptr;
        }
        case kRecordString: {
            uint32_t length;
            std::string value;
            return in.readU32(length) && in.readString(value, length) ? hold(std::move(value))
                                                                      : nullptr;
        }
        case kRecordVector: {
            std::vector<float> value;
            return in.readVector(value) ? hold(std::move(value)) : nullptr;
        }
        case kRecordMatrix: {
            CONTAINERS::Matrix value;
            return in.readMatrix(value) ? hold(std::move(value)) : nullptr;
        }
        case kRecordVectorVector: {
            std::vector<std::vector<float>> value;
            return in.readList(value, 4, &Cursor::readVector) ? hold(std::move(value)) : nullptr;
        }
        case kRecordMatrixVector: {
            std::vector<CONTAINERS::Matrix> value;
            return in.readList(value, 8, &Cursor::readMatrix) ? hold(std::move(value)) : nullptr;
        }
        default:
            return nullptr;
    }
}

bool isKnownType(uint32_t type) {
    return type <= kRecordMatrixVector;
}

enum class FileRead { kDone, kCantOpen, kShort };

FileRead readFile(const std::string& path, std::vector<uint8_t>& bytes) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) return FileRead::kCantOpen;
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) return FileRead::kCantOpen;
    const std::streamoff size = in.tellg();
    if (size < 0 || !in.seekg(0)) return FileRead::kShort;
    bytes.resize(static_cast<size_t>(size));
    in.read(reinterpret_cast<char*>(bytes.data()), size);
    return in.gcount() == size ? FileRead::kDone : FileRead::kShort;
}

}  // namespace

bool Weight::fail(std::string message) {
    records_.clear();
    message_ = std::move(message);
    return false;
}

bool Weight::load(const std::wstring& path) {
    records_.clear();
    message_.clear();
    const size_t dot = path.rfind(L'.');
    const std::wstring extension = dot == std::wstring::npos ? L"" : path.substr(dot + 1);
    const bool enciphered = extension == L"sw";
    if (!enciphered && extension != L"vlw") return fail(kInvalidFile);

    std::vector<uint8_t> bytes;
    switch (readFile(UTILS::toUtf8(path), bytes)) {
        case FileRead::kCantOpen:
            return fail(kCantOpen);
        case FileRead::kShort:
            // The read stopped before the size the file reported: a failure inside the data,
            // not its end, so it must not pass as a stream that was merely cut short.
            return fail(kCorrupted);
        case FileRead::kDone:
            break;
    }
    return enciphered ? loadBlob(bytes.data(), bytes.size())
                      : loadStream(bytes.data(), bytes.size());
}

bool Weight::loadBlob(const void* data, size_t size) {
    records_.clear();
    message_.clear();
    // P, the stream length and the cipher's word count are 32-bit quantities, so larger inputs
    // cannot be well formed.
    if (!data || size < kHeaderBytes + kBodyPrefixBytes ||
        size > std::numeric_limits<uint32_t>::max())
        return fail(kCorrupted);
    const auto* bytes = static_cast<const uint8_t*>(data);
    if (std::memcmp(bytes, kMagic, sizeof kMagic) != 0) return fail(kBadHeader);

    const size_t bodyBytes = size - kHeaderBytes;
    const auto words = static_cast<uint32_t>(bodyBytes / 4);
    // One word beyond the whole words holds the trailing 1-3 bytes and is also the word an odd
    // count makes the cipher touch, so deciphering never leaves the buffer.
    std::vector<uint32_t> body(static_cast<size_t>(words) + 1, 0);
    std::memcpy(body.data(), bytes + kHeaderBytes, bodyBytes);
    UTILS::Crypto(UTILS::TEA).decrypt(body.data(), words);

    const auto* plain = reinterpret_cast<const uint8_t*>(body.data());
    uint32_t padBytes;
    std::memcpy(&padBytes, plain + kPadCountOffset, sizeof padBytes);
    const auto afterPrefix = static_cast<uint32_t>(size - kHeaderBytes - kBodyPrefixBytes);
    if (padBytes > afterPrefix) return fail(kCorrupted);
    return loadStream(plain + kBodyPrefixBytes, afterPrefix - padBytes);
}

bool Weight::loadStream(const uint8_t* data, size_t size) {
    records_.clear();
    message_.clear();
    if (!data && size != 0) return fail(kCorrupted);
    try {
        Cursor in(data, size);
        // Any read that comes up short has hit the end of the data: the records before it stay
        // and the load succeeds, as for a file whose last record was cut off.
        for (;;) {
            uint32_t nameLength;
            uint32_t type;
            std::string name;
            if (!in.readU32(nameLength) || !in.readString(name, nameLength) || !in.readU32(type))
                break;
            if (!isKnownType(type)) continue;
            auto value = readBody(in, type);
            if (!value) break;
            // A NaN or infinity in a network or tuning value would spread through every frame a
            // session cleans; such a file is damaged, so the whole model is refused.
            if (in.takeNonFinite())
                return fail("Weight record " + name + " holds a non-finite value!");
            // Names in a well-formed file are unique; should one repeat, the later record
            // replaces the earlier one (docs/design.md, "Weight files").
            records_[name] = std::move(value);
        }
    } catch (const std::bad_alloc&) {
        // Counts are checked against the input first, so this is real memory exhaustion.
        return fail(kCorrupted);
    }
    if (records_.empty()) std::cout << "Warning Nothing added from weight" << std::endl;
    return true;
}

std::pair<unsigned, unsigned> getWeightInfo(const Weight& weight) {
    const unsigned* rate = weight.find<unsigned>("SampleRate");
    const unsigned* frameLength = weight.find<unsigned>("FrameLength");
    if (rate && frameLength &&
        (*rate == 8000 || *rate == 16000 || *rate == 24000 || *rate == 32000)) {
        // 64-bit so a huge FrameLength cannot wrap into a valid duration.
        const uint64_t durationMs = static_cast<uint64_t>(*frameLength) * 1000 / *rate;
        if (durationMs == 10 || durationMs == 20 || durationMs == 30 || durationMs == 40)
            return {*rate, static_cast<unsigned>(durationMs)};
    }
    throw UTILS::SonelException("there are no needing Weight information in Weight ",
                                "src/weights/weight", 540, "getWeightInfo");
}

std::string getWeightVersion(const Weight& weight) {
    const std::string* version = weight.find<std::string>("Version");
    if (!version)
        throw UTILS::SonelException("there are no Weight version in Weight ", "src/weights/weight",
                                    549, "getWeightVersion");
    return *version;
}

}  // namespace SONEL::WEIGHTS
