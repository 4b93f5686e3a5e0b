#pragma once
// Append-only frame buffer of the cleaners' frame loops. The producer appends at the write count;
// the consumer reads from the read index and advances it itself. When an append would run past
// the end, the unread span is first moved to the front (compaction), so memory is allocated only
// by the constructor.
#include <cstddef>
#include <vector>

namespace SONEL::CONTAINERS {

class CyclicBlockData {
public:
    // The buffer holds capacity + 1 floats, zero-filled.
    explicit CyclicBlockData(size_t capacity);

    void push_back(const float* values, size_t count);
    // 16-bit samples are stored as floats without scaling.
    void push_back(const short* values, size_t count);
    void push_backNULL(size_t count);

    float* data() { return buffer_.data(); }
    const float* data() const { return buffer_.data(); }
    // First unread element and one past the last written one, as indices into data().
    size_t readIndex() const { return readIndex_; }
    size_t writeCount() const { return writeCount_; }
    size_t unread() const { return writeCount_ - readIndex_; }
    float* readPtr() { return buffer_.data() + readIndex_; }
    const float* readPtr() const { return buffer_.data() + readIndex_; }
    size_t size() const { return buffer_.size(); }

    // Marks n more elements as consumed; the read index never passes the write count.
    void advance(size_t n);
    // Back to the constructed state: zero-filled, nothing written or read.
    void reset();

private:
    // Returns the index at which count new values go, compacting first when needed.
    size_t reserveTail(size_t count);

    std::vector<float> buffer_;
    size_t readIndex_ = 0;
    size_t writeCount_ = 0;
};

}  // namespace SONEL::CONTAINERS
