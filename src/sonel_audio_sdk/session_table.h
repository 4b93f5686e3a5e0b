#pragma once
// The instance's table of live sessions. Every frame call checks its handle here, on the caller's
// audio thread, while other threads may be creating and closing their own sessions: lookups take
// no lock and never touch memory that a concurrent insert or erase frees. Slots are atomic
// pointers in fixed chunks that are allocated on first use and kept until the table dies, so a
// reader scanning a chunk can never see it freed; insert and erase are serialised by the
// instance's mutex.
#include <array>
#include <atomic>
#include <cstddef>
#include <memory>

namespace SONEL::SONEL_AUDIO {

class SonelAudioSessionT;

class SessionTable {
public:
    // 64 chunks of 64: 4096 live sessions, far beyond the streams one client runs.
    static constexpr size_t kChunkSize = 64;
    static constexpr size_t kChunks = 64;
    static constexpr size_t kCapacity = kChunkSize * kChunks;

    SessionTable() = default;
    ~SessionTable();
    SessionTable(const SessionTable&) = delete;
    SessionTable& operator=(const SessionTable&) = delete;

    // Takes ownership. Throws when the table is full (the session is then deleted).
    // Caller holds the instance's mutex.
    void insert(std::unique_ptr<SonelAudioSessionT> session);
    // Deletes the session and frees its slot; false when it is not in the table.
    // Caller holds the instance's mutex.
    bool erase(const SonelAudioSessionT* session);
    // Deletes every session. Caller holds the instance's mutex.
    void clear();
    // Lock-free: safe beside inserts and erases of other sessions on other threads.
    bool contains(const SonelAudioSessionT* session) const;

private:
    using Chunk = std::array<std::atomic<SonelAudioSessionT*>, kChunkSize>;
    std::atomic<SonelAudioSessionT*>& slotAt(size_t index) const;

    std::array<std::atomic<Chunk*>, kChunks> chunks_{};
    // Slots at or past this index have never held a session; lookups stop there.
    std::atomic<size_t> highWater_{0};
};

}  // namespace SONEL::SONEL_AUDIO
