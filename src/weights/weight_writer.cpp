#include "weights/weight_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>
#include <type_traits>
#include <variant>

#include "utils/crypto.h"

namespace SONEL::WEIGHTS {

namespace {

using CONTAINERS::Matrix;
using Value = WeightWriter::Value;

static_assert(
    std::is_same_v<std::variant_alternative_t<kRecordFloat, Value>, float> &&
        std::is_same_v<std::variant_alternative_t<kRecordUInt, Value>, unsigned int> &&
        std::is_same_v<std::variant_alternative_t<kRecordString, Value>, std::string> &&
        std::is_same_v<std::variant_alternative_t<kRecordVector, Value>, std::vector<float>> &&
        std::is_same_v<std::variant_alternative_t<kRecordMatrix, Value>, Matrix> &&
        std::is_same_v<std::variant_alternative_t<kRecordVectorVector, Value>,
                       std::vector<std::vector<float>>> &&
        std::is_same_v<std::variant_alternative_t<kRecordMatrixVector, Value>, std::vector<Matrix>>,
    "Value alternatives must follow the record type codes");

// Plain header bytes 4-15 and deciphered body bytes 0-3 and 8-15 are never read back; they carry
// this writer's format version, the stream length and the pad count so a hex dump explains
// itself. Bytes that mean nothing are zero, which keeps the output deterministic.
constexpr uint32_t kWriterFormatVersion = 1;
constexpr uint8_t kMagic[4] = {'S', 'M', 'W', 0};
constexpr size_t kHeaderBytes = 16;
constexpr size_t kBodyPrefixBytes = 16;
constexpr size_t kCipherBlockBytes = 8;
constexpr uint64_t kMaxField = std::numeric_limits<uint32_t>::max();

[[noreturn]] void reject(const std::string& message, int line, const char* function) {
    throw UTILS::SonelException(message, "src/weights/weight_writer", line, function);
}

void putU32(std::vector<uint8_t>& out, uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<uint8_t>(value >> shift));
}

void putFloat(std::vector<uint8_t>& out, float value) {
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    putU32(out, bits);
}

void putFloats(std::vector<uint8_t>& out, const std::vector<float>& values) {
    for (float value : values) putFloat(out, value);
}

void putMatrix(std::vector<uint8_t>& out, const Matrix& matrix) {
    putU32(out, matrix.rows);
    putU32(out, matrix.columns);
    putFloats(out, matrix.data);
}

// Sizes are written as u32, so each is checked once when the record is added.
bool fits(size_t count) {
    return count <= kMaxField;
}
bool isConsistent(const Matrix& matrix) {
    return matrix.data.size() == static_cast<uint64_t>(matrix.rows) * matrix.columns;
}

bool isWritable(const Value& value) {
    switch (value.index()) {
        case kRecordString:
            return fits(std::get<kRecordString>(value).size());
        case kRecordVector:
            return fits(std::get<kRecordVector>(value).size());
        case kRecordMatrix:
            return isConsistent(std::get<kRecordMatrix>(value));
        case kRecordVectorVector: {
            const auto& list = std::get<kRecordVectorVector>(value);
            if (!fits(list.size())) return false;
            for (const auto& vector : list)
                if (!fits(vector.size())) return false;
            return true;
        }
        case kRecordMatrixVector: {
            const auto& list = std::get<kRecordMatrixVector>(value);
            if (!fits(list.size())) return false;
            for (const auto& matrix : list)
                if (!isConsistent(matrix)) return false;
            return true;
        }
        default:
            return true;
    }
}

bool allFinite(const std::vector<float>& values) {
    return std::all_of(values.begin(), values.end(), [](float v) { return std::isfinite(v); });
}

// The reader refuses a model with NaN or an infinity in any float record, so none is written.
bool isFinite(const Value& value) {
    switch (value.index()) {
        case kRecordFloat:
            return std::isfinite(std::get<kRecordFloat>(value));
        case kRecordVector:
            return allFinite(std::get<kRecordVector>(value));
        case kRecordMatrix:
            return allFinite(std::get<kRecordMatrix>(value).data);
        case kRecordVectorVector: {
            const auto& list = std::get<kRecordVectorVector>(value);
            return std::all_of(list.begin(), list.end(), allFinite);
        }
        case kRecordMatrixVector: {
            const auto& list = std::get<kRecordMatrixVector>(value);
            return std::all_of(list.begin(), list.end(),
                               [](const Matrix& matrix) { return allFinite(matrix.data); });
        }
        default:
            return true;
    }
}

void putValue(std::vector<uint8_t>& out, const Value& value) {
    putU32(out, static_cast<uint32_t>(value.index()));
    switch (value.index()) {
        case kRecordFloat:
            putFloat(out, std::get<kRecordFloat>(value));
            break;
        case kRecordUInt:
            putU32(out, std::get<kRecordUInt>(value));
            break;
        case kRecordString: {
            const std::string& text = std::get<kRecordString>(value);
            putU32(out, static_cast<uint32_t>(text.size()));
            out.insert(out.end(), text.begin(), text.end());
            break;
        }
        case kRecordVector: {
            const auto& vector = std::get<kRecordVector>(value);
            putU32(out, static_cast<uint32_t>(vector.size()));
            putFloats(out, vector);
            break;
        }
        case kRecordMatrix:
            putMatrix(out, std::get<kRecordMatrix>(value));
            break;
        case kRecordVectorVector: {
            const auto& list = std::get<kRecordVectorVector>(value);
            putU32(out, static_cast<uint32_t>(list.size()));
            for (const auto& vector : list) {
                putU32(out, static_cast<uint32_t>(vector.size()));
                putFloats(out, vector);
            }
            break;
        }
        case kRecordMatrixVector: {
            const auto& list = std::get<kRecordMatrixVector>(value);
            putU32(out, static_cast<uint32_t>(list.size()));
            for (const auto& matrix : list) putMatrix(out, matrix);
            break;
        }
    }
}

// The stored value as the alternative of the same C++ type, if it is one of them.
template <size_t I = 0>
std::optional<Value> toValue(const CONTAINERS::MapObject* object) {
    if constexpr (I < std::variant_size_v<Value>) {
        using T = std::variant_alternative_t<I, Value>;
        if (const auto* holder = dynamic_cast<const CONTAINERS::Any<T>*>(object))
            return Value(std::in_place_index<I>, holder->get());
        return toValue<I + 1>(object);
    } else {
        return std::nullopt;
    }
}

bool writeAll(int fd, const std::vector<uint8_t>& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t written = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        done += static_cast<size_t>(written);
    }
    return true;
}

bool replaceFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    // Process id and a counter keep concurrent writers in one folder from sharing a temp name.
    static std::atomic<unsigned> counter{0};
    const std::string temp =
        path + ".tmp." + std::to_string(::getpid()) + "." + std::to_string(counter++);
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) return false;
    // fsync before the rename: otherwise a crash could leave the new name on an empty file.
    bool ok = writeAll(fd, bytes) && ::fsync(fd) == 0;
    ok = ::close(fd) == 0 && ok;
    if (ok && std::rename(temp.c_str(), path.c_str()) == 0) return true;
    ::unlink(temp.c_str());
    return false;
}

}  // namespace

WeightWriter::WeightWriter(const Weight& weight) {
    for (const auto& [name, object] : weight.records()) {
        std::optional<Value> value = toValue(object.get());
        if (!value)
            reject("Weight record " + name + " has no weight file type", __LINE__, "WeightWriter");
        add(name, std::move(*value));
    }
}

void WeightWriter::add(std::string name, Value value) {
    if (!fits(name.size()) || !isWritable(value))
        reject("Weight record " + name + " does not fit the weight file format", __LINE__, "add");
    if (!isFinite(value))
        reject("Weight record " + name + " holds a non-finite value", __LINE__, "add");
    for (const Record& record : records_)
        if (record.name == name) reject("Weight record " + name + " added twice", __LINE__, "add");
    records_.push_back({std::move(name), std::move(value)});
}

std::vector<uint8_t> WeightWriter::toStream() const {
    std::vector<uint8_t> out;
    for (const Record& record : records_) {
        putU32(out, static_cast<uint32_t>(record.name.size()));
        out.insert(out.end(), record.name.begin(), record.name.end());
        putValue(out, record.value);
    }
    return out;
}

std::vector<uint8_t> WeightWriter::toEnciphered() const {
    const std::vector<uint8_t> stream = toStream();
    // The cipher works on 8-byte blocks; zero padding makes the body whole blocks, so every
    // body word is enciphered and no trailing bytes stay plain.
    const size_t padBytes =
        (kCipherBlockBytes - stream.size() % kCipherBlockBytes) % kCipherBlockBytes;
    const size_t bodyBytes = kBodyPrefixBytes + stream.size() + padBytes;
    if (kHeaderBytes + bodyBytes > kMaxField)
        reject("Weight too large to encipher", __LINE__, "toEnciphered");
    const auto streamLength = static_cast<uint32_t>(stream.size());

    std::vector<uint8_t> body;
    body.reserve(bodyBytes);
    putU32(body, streamLength);
    putU32(body, static_cast<uint32_t>(padBytes));
    putU32(body, 0);
    putU32(body, 0);
    body.insert(body.end(), stream.begin(), stream.end());
    body.resize(bodyBytes, 0);

    // Host words are little-endian like the file's (weight.cpp refuses other hosts).
    std::vector<uint32_t> words(bodyBytes / 4);
    std::memcpy(words.data(), body.data(), bodyBytes);
    UTILS::Crypto(UTILS::TEA).encrypt(words.data(), static_cast<uint32_t>(words.size()));

    std::vector<uint8_t> out(kMagic, kMagic + sizeof kMagic);
    putU32(out, kWriterFormatVersion);
    putU32(out, streamLength);
    putU32(out, static_cast<uint32_t>(padBytes));
    out.resize(out.size() + bodyBytes);
    std::memcpy(out.data() + kHeaderBytes, words.data(), bodyBytes);
    return out;
}

bool WeightWriter::writeFile(const std::string& path) const {
    const size_t dot = path.rfind('.');
    const std::string extension = dot == std::string::npos ? "" : path.substr(dot + 1);
    if (extension == "sw") return replaceFile(path, toEnciphered());
    if (extension == "vlw") return replaceFile(path, toStream());
    return false;
}

}  // namespace SONEL::WEIGHTS
