#pragma once
// Helpers shared by the test suites: scratch folders and small model files.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "sonel-audio-sdk.h"
#include "model_factory.h"

namespace sonel_test {

// A fresh folder under the system temp folder, removed with the object.
class ScratchDir {
public:
    ScratchDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "sonel-test-XXXXXX").string();
        path_ = mkdtemp(pattern.data());
    }
    ~ScratchDir() { std::filesystem::remove_all(path_); }
    std::string file(const std::string& name) const { return (path_ / name).string(); }
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

inline std::wstring wide(const std::string& s) { return std::wstring(s.begin(), s.end()); }

// Holds one global reference for the length of a test.
struct GlobalInstance {
    GlobalInstance() { EXPECT_EQ(sonelAudioGlobalInit(nullptr), SONEL_AUDIO_OK); }
    ~GlobalInstance() { EXPECT_EQ(sonelAudioGlobalDestroy(), SONEL_AUDIO_OK); }
};

}  // namespace sonel_test
