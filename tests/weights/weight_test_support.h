#pragma once
// Shared by the weight tests: a model with every record type and file helpers.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "test_support.h"
#include "weights/weight_writer.h"

namespace weight_test {

using Bytes = std::vector<uint8_t>;
using SONEL::CONTAINERS::Matrix;
using SONEL::WEIGHTS::Weight;
using SONEL::WEIGHTS::WeightWriter;
using sonel_test::ScratchDir;
using sonel_test::wide;

// Every record type, with edge values (negative zero, a denormal, the largest float, empty
// containers, a 0 x 5 matrix, a UTF-8 name). Added in name order, which is the order a loaded
// Weight keeps, so a loaded copy written again must give exactly these bytes.
inline WeightWriter sampleWriter() {
    WeightWriter writer;
    writer.add("BaesGRU",
               std::vector<float>{0.5f, -0.0f, 1e-40f, std::numeric_limits<float>::max()});
    writer.add("Comment", std::string());
    writer.add("FrameLength", 160u);
    writer.add("Gain", -2.75f);
    writer.add("ModelName", std::string("tiny"));
    writer.add("SampleRate", 16000u);
    writer.add("TimeStamp", std::string("2024-06-01T12:00"));
    writer.add("Version", std::string("v0.0.5"));
    writer.add("WeightGRU", std::vector<Matrix>{Matrix(2, 3, {1, 2, 3, 4, 5, 6}), Matrix(0, 5),
                                                Matrix(1, 1, {-7.125f})});
    writer.add("WeightLinear", Matrix(3, 2, {0.1f, -0.2f, 0.3f, 1e30f, -1e-30f, 6}));
    writer.add("WeightRows", std::vector<std::vector<float>>{{1}, {}, {2, 3}});
    writer.add("\xC3\xA9tat", 0.0f);
    return writer;
}

inline void writeBytes(const std::string& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

inline Bytes readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// `call` must throw SonelException with `message`, raised at `location`
// ("<file> Line <n> Function <name>", as the exception text spells it).
template <typename Call>
void expectSonelException(Call call, const std::string& message, const std::string& location) {
    try {
        call();
        ADD_FAILURE() << "no exception";
    } catch (const SONEL::UTILS::SonelException& error) {
        EXPECT_EQ(error.message(), message);
        EXPECT_NE(std::string(error.what()).find(location), std::string::npos) << error.what();
    }
}

// Exit status of a shell command, -1 when it did not exit normally.
inline int runCommand(const std::string& command) {
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace weight_test
