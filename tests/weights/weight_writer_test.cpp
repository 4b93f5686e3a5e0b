// Writing weight files: every record type through every form, what the format cannot hold, the
// Python twin of the writer and reader, and the `sonel` tool built on them.
#include <cstdio>
#include <limits>
#include <regex>
#include <variant>

#include "weight_test_support.h"

using namespace weight_test;
using SONEL::UTILS::SonelException;

namespace {

// JSON record list for tools/sonel_weights.py; floats travel as exact hexadecimal text. Sample
// names and strings hold no quotes, backslashes or control characters, so they need no escapes.
struct JsonValue {
    std::string operator()(float value) const {
        char text[48];
        std::snprintf(text, sizeof text, "\"%a\"", static_cast<double>(value));
        return text;
    }
    std::string operator()(unsigned value) const { return std::to_string(value); }
    std::string operator()(const std::string& value) const { return "\"" + value + "\""; }
    std::string operator()(const Matrix& matrix) const {
        return "{\"rows\": " + std::to_string(matrix.rows) +
               ", \"columns\": " + std::to_string(matrix.columns) +
               ", \"data\": " + (*this)(matrix.data) + "}";
    }
    template <typename T>
    std::string operator()(const std::vector<T>& list) const {
        std::string out = "[";
        for (const T& element : list) out += (out.size() > 1 ? ", " : "") + (*this)(element);
        return out + "]";
    }
};

std::string jsonRecords(const WeightWriter& writer) {
    std::string out = "[";
    for (const auto& record : writer.records()) {
        out += (out.size() > 1 ? ",\n" : "") + std::string("{\"name\": \"") + record.name +
               "\", \"type\": " + std::to_string(record.value.index()) +
               ", \"value\": " + std::visit(JsonValue{}, record.value) + "}";
    }
    return out + "]";
}

std::string readText(const std::string& path) {
    const Bytes bytes = readBytes(path);
    return std::string(bytes.begin(), bytes.end());
}

}  // namespace

TEST(WeightWriter, EveryRecordTypeRoundTripsThroughEachForm) {
    const WeightWriter sample = sampleWriter();
    const Bytes stream = sample.toStream();
    const Bytes blob = sample.toEnciphered();
    const ScratchDir scratch;
    const std::string dir = scratch.path().string();
    ASSERT_TRUE(sample.writeFile(dir + "/model.vlw"));
    ASSERT_TRUE(sample.writeFile(dir + "/model.sw"));
    EXPECT_EQ(readBytes(dir + "/model.vlw"), stream);
    EXPECT_EQ(readBytes(dir + "/model.sw"), blob);

    Weight fromVlw, fromSw, fromBlob;
    ASSERT_TRUE(fromVlw.load(wide(dir + "/model.vlw"))) << fromVlw.message();
    ASSERT_TRUE(fromSw.load(wide(dir + "/model.sw"))) << fromSw.message();
    ASSERT_TRUE(fromBlob.loadBlob(blob.data(), blob.size())) << fromBlob.message();
    for (const Weight* loaded : {&fromVlw, &fromSw, &fromBlob}) {
        // The sample is in name order, so writing a loaded copy again must give the same bytes,
        // bit for bit (negative zero, denormal and the largest float included).
        EXPECT_EQ(WeightWriter(*loaded).toStream(), stream);
        EXPECT_EQ(loaded->get<unsigned>("SampleRate"), 16000u);
        EXPECT_EQ(loaded->get<std::vector<Matrix>>("WeightGRU")[1].columns, 5u);
    }

    // Rewriting replaces the file and leaves no temporary behind; refused writes leave nothing.
    WeightWriter other;
    other.add("Version", std::string("v0.0.7"));
    ASSERT_TRUE(other.writeFile(dir + "/model.vlw"));
    EXPECT_EQ(readBytes(dir + "/model.vlw"), other.toStream());
    EXPECT_FALSE(sample.writeFile(dir + "/model.txt"));
    EXPECT_FALSE(sample.writeFile(dir + "/missing/model.sw"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 2);
}

TEST(WeightWriter, RejectsRecordsTheFormatCannotHold) {
    WeightWriter writer;
    writer.add("Gain", 1.0f);
    Matrix ragged(2, 2);
    ragged.data.pop_back();
    EXPECT_THROW(writer.add("Gain", 2u), SonelException);
    EXPECT_THROW(writer.add("Layer", ragged), SonelException);
    EXPECT_THROW(writer.add("Layers", std::vector<Matrix>{Matrix(1, 1), ragged}), SonelException);
    EXPECT_EQ(writer.records().size(), 1u);

    Weight foreign;
    foreign.set("Count", 3);  // int: no record type holds it
    EXPECT_THROW(WeightWriter{foreign}, SonelException);
}

TEST(WeightWriter, RefusesNonFiniteValuesInEveryFloatRecordType) {
    // The reader refuses such a model, so writing one would only make a file no host can load.
    // `last` is the record's last value: each is checked, not just the first.
    const auto records = [](float last) {
        return std::vector<WeightWriter::Value>{
            last,
            std::vector<float>{1, last},
            Matrix(2, 2, {1, 2, 3, last}),
            std::vector<std::vector<float>>{{1}, {2, last}},
            std::vector<Matrix>{Matrix(1, 1, {1}), Matrix(1, 2, {2, last})},
        };
    };
    for (float bad :
         {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
          -std::numeric_limits<float>::infinity()}) {
        SCOPED_TRACE(bad);
        for (const WeightWriter::Value& value : records(bad)) {
            SCOPED_TRACE(value.index());
            WeightWriter writer;
            expectSonelException([&] { writer.add("Layer", value); },
                                 "Weight record Layer holds a non-finite value",
                                 "src/weights/weight_writer");
            EXPECT_TRUE(writer.records().empty());
        }
    }
    WeightWriter writer;
    for (const WeightWriter::Value& value : records(std::numeric_limits<float>::max()))
        writer.add("Layer" + std::to_string(value.index()), value);
    EXPECT_EQ(writer.records().size(), 5u);
}

TEST(PythonWeights, WriterAndReaderMatchTheLibraryBytes) {
    if (runCommand("/usr/bin/python3 -c 'import numpy' 2>/dev/null") != 0)
        GTEST_SKIP() << "/usr/bin/python3 with numpy is needed to check tools/sonel_weights.py";
    const WeightWriter sample = sampleWriter();
    const ScratchDir scratch;
    const std::string dir = scratch.path().string();
    std::ofstream(dir + "/records.json") << jsonRecords(sample);
    ASSERT_TRUE(sample.writeFile(dir + "/cpp.vlw"));
    ASSERT_TRUE(sample.writeFile(dir + "/cpp.sw"));
    const std::string python = "cd '" + dir +
                               "' && /usr/bin/python3 '" SONEL_SOURCE_DIR
                               "/tools/sonel_weights.py' --build-dir '" SONEL_BINARY_DIR "' ";

    ASSERT_EQ(runCommand(python + "write records.json py.vlw"), 0);
    ASSERT_EQ(runCommand(python + "write records.json py.sw"), 0);
    EXPECT_EQ(readBytes(dir + "/py.vlw"), sample.toStream());
    EXPECT_EQ(readBytes(dir + "/py.sw"), sample.toEnciphered());
    // Python reads what the library wrote and writes it back in the other form.
    ASSERT_EQ(runCommand(python + "convert cpp.sw back.vlw"), 0);
    ASSERT_EQ(runCommand(python + "convert cpp.vlw back.sw"), 0);
    EXPECT_EQ(readBytes(dir + "/back.vlw"), sample.toStream());
    EXPECT_EQ(readBytes(dir + "/back.sw"), sample.toEnciphered());
}

TEST(SonelTool, PacksUnpacksAndDescribesModels) {
    const WeightWriter sample = sampleWriter();
    const ScratchDir scratch;
    const std::string dir = scratch.path().string();
    ASSERT_TRUE(sample.writeFile(dir + "/in.vlw"));
    const std::string sonel = "cd '" + dir + "' && '" SONEL_TOOL "' ";

    ASSERT_EQ(runCommand(sonel + "model pack in.vlw out.sw"), 0);
    EXPECT_EQ(readBytes(dir + "/out.sw"), sample.toEnciphered());
    ASSERT_EQ(runCommand(sonel + "model unpack out.sw back.vlw"), 0);
    EXPECT_EQ(readBytes(dir + "/back.vlw"), sample.toStream());

    ASSERT_EQ(runCommand(sonel + "model info out.sw >info.txt"), 0);
    const std::string info = readText(dir + "/info.txt");
    EXPECT_TRUE(std::regex_search(info, std::regex("\nWeightLinear +matrix +\\[3 x 2\\]\n")))
        << info;
    EXPECT_TRUE(std::regex_search(
        info, std::regex("\nWeightGRU +matrix_list +3 of \\[2 x 3\\] \\[0 x 5\\]")))
        << info;
    const std::string wellKnown =
        "Version: v0.0.5\nSampleRate: 16000\nFrameLength: 160\nModelName: tiny\n"
        "TimeStamp: 2024-06-01T12:00\n";
    EXPECT_EQ(info.substr(info.size() - std::min(info.size(), wellKnown.size())), wellKnown);

    ASSERT_EQ(runCommand(sonel + "version >version.txt"), 0);
    EXPECT_EQ(readText(dir + "/version.txt"), SONEL_PROJECT_VERSION "\n");
    ASSERT_EQ(runCommand(sonel + ">usage.txt"), 0);
    EXPECT_EQ(readText(dir + "/usage.txt").rfind("usage:", 0), 0u);

    for (const char* bad : {"model info absent.sw", "model pack in.vlw out.vlw",
                            "model unpack in.vlw", "model", "denoise", "version now"}) {
        SCOPED_TRACE(bad);
        EXPECT_NE(runCommand(sonel + bad + " >out.txt 2>err.txt"), 0);
        const std::string error = readText(dir + "/err.txt");
        EXPECT_EQ(error.rfind("sonel: ", 0), 0u) << error;
        EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), 1) << error;
        EXPECT_EQ(readText(dir + "/out.txt"), "");
    }
}
