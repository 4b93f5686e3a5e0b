#include "utils/cyclic_block_data.h"

#include <algorithm>
#include <cstring>

#include "utils/sonel_exception.h"

namespace SONEL::CONTAINERS {

CyclicBlockData::CyclicBlockData(size_t capacity) : buffer_(capacity + 1, 0.0f) {}

size_t CyclicBlockData::reserveTail(size_t count) {
    if (writeCount_ + count > buffer_.size()) {
        const size_t kept = unread();
        std::memmove(buffer_.data(), buffer_.data() + readIndex_, kept * sizeof(float));
        writeCount_ = kept;
        readIndex_ = 0;
        // Callers size the buffer for the unread span plus one push; running past it would
        // overwrite memory, so it is a hard error rather than silent corruption.
        if (writeCount_ + count > buffer_.size()) {
            throw UTILS::SonelException("CyclicBlockData overflow", __FILE__, __LINE__,
                                        "push_back");
        }
    }
    const size_t at = writeCount_;
    writeCount_ += count;
    return at;
}

void CyclicBlockData::push_back(const float* values, size_t count) {
    const size_t at = reserveTail(count);
    std::copy(values, values + count, buffer_.begin() + static_cast<std::ptrdiff_t>(at));
}

void CyclicBlockData::push_back(const short* values, size_t count) {
    const size_t at = reserveTail(count);
    std::transform(values, values + count, buffer_.begin() + static_cast<std::ptrdiff_t>(at),
                   [](short s) { return static_cast<float>(s); });
}

void CyclicBlockData::push_backNULL(size_t count) {
    const size_t at = reserveTail(count);
    std::fill_n(buffer_.begin() + static_cast<std::ptrdiff_t>(at), count, 0.0f);
}

void CyclicBlockData::advance(size_t n) {
    readIndex_ = std::min(readIndex_ + n, writeCount_);
}

void CyclicBlockData::reset() {
    std::fill(buffer_.begin(), buffer_.end(), 0.0f);
    readIndex_ = 0;
    writeCount_ = 0;
}

}  // namespace SONEL::CONTAINERS
