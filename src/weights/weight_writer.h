#pragma once
// Builds weight files: the plain record stream ("vlw") and the enciphered form ("sw", blobs)
// that Weight reads back. Records are written in the order they were added, so the same records
// added in the same order always give the same bytes (tools/sonel_weights.py writes them too).
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "utils/matrix.h"
#include "weights/weight.h"

namespace SONEL::WEIGHTS {

class WeightWriter {
public:
    // Alternative index == WeightRecordType code of the record.
    using Value =
        std::variant<float, unsigned int, std::string, std::vector<float>, CONTAINERS::Matrix,
                     std::vector<std::vector<float>>, std::vector<CONTAINERS::Matrix>>;
    struct Record {
        std::string name;
        Value value;
    };

    WeightWriter() = default;
    // The records of a loaded weight, in name order. Throws SonelException for a record whose
    // type no weight file can hold.
    explicit WeightWriter(const Weight& weight);

    // Throws SonelException for a repeated name, a matrix whose data does not hold
    // rows × columns values, a size beyond the format's 32-bit fields, or a NaN or infinity
    // (which the reader refuses).
    void add(std::string name, Value value);

    const std::vector<Record>& records() const { return records_; }

    // Plain record stream: the whole content of a "vlw" file.
    std::vector<uint8_t> toStream() const;
    // Enciphered form: the whole content of an "sw" file or a blob. Throws SonelException when
    // the result would exceed the format's 4 GiB limit.
    std::vector<uint8_t> toEnciphered() const;
    // "sw" or "vlw" by extension (case-sensitive, as the reader). The bytes go to a temporary
    // file in the same folder that is renamed over `path` once complete, so a failed write never
    // leaves a partial file. False for another extension or any I/O failure.
    bool writeFile(const std::string& path) const;

private:
    std::vector<Record> records_;
};

}  // namespace SONEL::WEIGHTS
