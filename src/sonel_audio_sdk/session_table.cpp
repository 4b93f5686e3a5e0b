#include "sonel_audio_sdk/session_table.h"

#include "sonel_audio_sdk/session.h"
#include "utils/sonel_exception.h"

namespace SONEL::SONEL_AUDIO {

SessionTable::~SessionTable() {
    clear();
    for (auto& chunk : chunks_) delete chunk.load(std::memory_order_relaxed);
}

// Only for indices below the high-water mark, whose chunk exists and is never freed before the
// table.
std::atomic<SonelAudioSessionT*>& SessionTable::slotAt(size_t index) const {
    return (*chunks_[index / kChunkSize].load(std::memory_order_acquire))[index % kChunkSize];
}

void SessionTable::insert(std::unique_ptr<SonelAudioSessionT> session) {
    for (size_t c = 0; c < kChunks; ++c) {
        Chunk* chunk = chunks_[c].load(std::memory_order_acquire);
        if (!chunk) {
            chunk = new Chunk{};
            // Published before any slot in it is: a reader that sees the chunk sees null slots.
            chunks_[c].store(chunk, std::memory_order_release);
        }
        for (size_t s = 0; s < kChunkSize; ++s) {
            if ((*chunk)[s].load(std::memory_order_relaxed)) continue;
            const size_t index = c * kChunkSize + s;
            if (index >= highWater_.load(std::memory_order_relaxed))
                highWater_.store(index + 1, std::memory_order_release);
            // Release: a reader that finds the pointer also sees the fully built session.
            (*chunk)[s].store(session.release(), std::memory_order_release);
            return;
        }
    }
    throw UTILS::SonelException("ERROR too many sessions", "src/sonel_audio_sdk/session_table",
                                __LINE__, "insert");
}

bool SessionTable::erase(const SonelAudioSessionT* session) {
    const size_t end = highWater_.load(std::memory_order_relaxed);
    for (size_t index = 0; index < end; ++index) {
        auto& slot = slotAt(index);
        SonelAudioSessionT* live = slot.load(std::memory_order_relaxed);
        if (live != session) continue;
        // Unlinked before it is deleted, so no lookup can find a session being torn down.
        slot.store(nullptr, std::memory_order_release);
        delete live;
        return true;
    }
    return false;
}

void SessionTable::clear() {
    const size_t end = highWater_.load(std::memory_order_relaxed);
    for (size_t index = 0; index < end; ++index) {
        delete slotAt(index).exchange(nullptr, std::memory_order_acq_rel);
    }
}

bool SessionTable::contains(const SonelAudioSessionT* session) const {
    if (!session) return false;
    const size_t end = highWater_.load(std::memory_order_acquire);
    for (size_t index = 0; index < end; ++index) {
        if (slotAt(index).load(std::memory_order_acquire) == session) return true;
    }
    return false;
}

}  // namespace SONEL::SONEL_AUDIO
