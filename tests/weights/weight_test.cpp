// Reading weight files: file forms and their checks, the record stream's end and damage rules,
// and the model information read from a loaded weight.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <random>
#include <regex>

#include "sonel-audio-sdk.h"
#include "utils/crypto.h"
#include "weight_test_support.h"

using namespace weight_test;
using SONEL::UTILS::SonelException;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

// Largest single request to operator new since the last reset: damaged counts must never reach
// the allocator, and a size check is the only way to see that without timing the test.
std::atomic<size_t> gLargestAllocation{0};

}  // namespace

void* operator new(size_t size) {
    size_t largest = gLargestAllocation.load();
    while (size > largest && !gLargestAllocation.compare_exchange_weak(largest, size)) {
    }
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t) noexcept {
    std::free(p);
}

namespace {

// Loads stay within this; the sample model is a few hundred bytes.
constexpr size_t kAllocationCeiling = 64 * 1024;

const char kCantOpen[] = "Can't open weight file!";
const char kCorrupted[] = "Corrupted weight file!";
const char kBadHeader[] = "Corrupted weight header!";
const char kInvalid[] = "Invalid weight file!";
const char kNothingAdded[] = "Warning Nothing added from weight\n";

void putU32(Bytes& out, uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<uint8_t>(value >> shift));
}

// Little-endian words appended to `out`.
Bytes rawWords(std::initializer_list<uint32_t> words, Bytes out = {}) {
    for (uint32_t word : words) putU32(out, word);
    return out;
}

// One raw record: the name, then the given words (type code first).
Bytes rawRecord(const std::string& name, std::initializer_list<uint32_t> words) {
    Bytes out;
    putU32(out, static_cast<uint32_t>(name.size()));
    for (char c : name) out.push_back(static_cast<uint8_t>(c));
    return rawWords(words, std::move(out));
}

Bytes floatRecord(const std::string& name, float value) {
    WeightWriter writer;
    writer.add(name, value);
    return writer.toStream();
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

// An enciphered file around the given plain body words (with the library's key).
Bytes enciphered(std::vector<uint32_t> body) {
    const auto words = static_cast<uint32_t>(body.size());
    body.push_back(0);  // the spare word an odd count enciphers; not part of the file
    SONEL::UTILS::Crypto(SONEL::UTILS::TEA).encrypt(body.data(), words);
    body.pop_back();
    Bytes out = {'S', 'M', 'W', 0};
    out.resize(16, 0);
    for (uint32_t word : body) putU32(out, word);
    return out;
}

// The enciphered form of any stream, laid out as WeightWriter lays out its own.
Bytes encipheredStream(const Bytes& stream) {
    const auto length = static_cast<uint32_t>(stream.size());
    const uint32_t padBytes = (8 - length % 8) % 8;
    Bytes body = rawWords({length, padBytes, 0, 0});
    body.insert(body.end(), stream.begin(), stream.end());
    body.resize(body.size() + padBytes, 0);
    std::vector<uint32_t> words(body.size() / 4);
    std::memcpy(words.data(), body.data(), body.size());
    return enciphered(std::move(words));
}

std::vector<std::string> names(const Weight& weight) {
    std::vector<std::string> out;
    for (const auto& entry : weight.records()) out.push_back(entry.first);
    return out;
}

}  // namespace

TEST(WeightFile, FormIsChosenByExtensionAndChecked) {
    const Bytes sw = sampleWriter().toEnciphered();
    const Bytes vlw = sampleWriter().toStream();
    const Bytes smallest = WeightWriter().toEnciphered();  // header and body prefix only
    Bytes badMagic = smallest;
    badMagic[2] = 'X';
    struct Case {
        std::string file;
        std::optional<Bytes> bytes;  // none: the file does not exist
        const char* message;         // empty: loads
    };
    std::vector<Case> cases = {
        {"model.sw", sw, ""},
        {"model.vlw", vlw, ""},
        {"model.SW", sw, kInvalid},
        {"model.Vlw", vlw, kInvalid},
        {"model", vlw, kInvalid},
        {"model.sw.bak", sw, kInvalid},
        {"absent.sw", std::nullopt, kCantOpen},  // both forms open the file alike
        {"folder.vlw", std::nullopt, kCantOpen},  // created as a folder below
        {"smallest.sw", smallest, ""},
        {"short.sw", Bytes(smallest.begin(), smallest.end() - 1), kCorrupted},
        {"short-bad-magic.sw", Bytes(badMagic.begin(), badMagic.end() - 1), kCorrupted},
        {"bad-magic.sw", badMagic, kBadHeader},
        // P may cover the whole body after its 16-byte prefix, not one byte more.
        {"pad-fits.sw", enciphered({0, 8, 0, 0, 0, 0}), ""},
        {"pad-over.sw", enciphered({0, 9, 0, 0, 0, 0}), kCorrupted},
        // Bodies of 5 words (an odd count) and of 4 words and 2 stray bytes.
        {"odd-words.sw", enciphered({0, 4, 0, 0, 0}), ""},
        {"stray-bytes.sw", concat({enciphered({0, 2, 0, 0}), Bytes{1, 2}}), ""},
    };
    const ScratchDir scratch;
    const std::string dir = scratch.path().string();
    std::filesystem::create_directory(dir + "/folder.vlw");
    CaptureStdout();  // the empty ones print the nothing-added warning
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        if (c.bytes) writeBytes(dir + "/" + c.file, *c.bytes);
        Weight weight;
        EXPECT_EQ(weight.load(wide(dir + "/" + c.file)), *c.message == '\0');
        EXPECT_EQ(weight.message(), c.message);
        if (*c.message) EXPECT_TRUE(weight.records().empty());
    }
    GetCapturedStdout();

    // The wide path reaches the file system as UTF-8.
    writeBytes(dir + "/mod\xC3\xA8le-\xF0\x9F\x8E\xA4.vlw", vlw);
    Weight weight;
    EXPECT_TRUE(weight.load(wide(dir) + L"/mod\u00e8le-\U0001F3A4.vlw")) << weight.message();
    EXPECT_EQ(weight.records().size(), sampleWriter().records().size());
}

TEST(WeightStream, RecordCutShortEndsLoadWithTheRecordsBeforeIt) {
    const WeightWriter sample = sampleWriter();
    const Bytes stream = sample.toStream();
    std::vector<size_t> recordEnds;
    WeightWriter prefix;
    for (const auto& record : sample.records()) {
        prefix.add(record.name, record.value);
        recordEnds.push_back(prefix.toStream().size());
    }
    CaptureStdout();
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        SCOPED_TRACE(cut);
        Weight weight;
        ASSERT_TRUE(weight.loadStream(stream.data(), cut));
        const auto whole = static_cast<size_t>(std::count_if(
            recordEnds.begin(), recordEnds.end(), [&](size_t end) { return end <= cut; }));
        ASSERT_EQ(weight.records().size(), whole);
        for (size_t i = 0; i < whole; ++i)
            EXPECT_EQ(weight.records().count(sample.records()[i].name), 1u);
    }
    GetCapturedStdout();
}

TEST(WeightStream, UnknownTypesAreSkippedLaterNamesReplaceAndNothingAddedWarns) {
    WeightWriter asString;
    asString.add("Gain", std::string("loud"));
    auto between = [](uint32_t code) {
        return concat({floatRecord("A", 1), rawRecord("Future", {code}), floatRecord("B", 2)});
    };
    const std::pair<Bytes, std::vector<std::string>> cases[] = {
        {Bytes(), {}},
        {rawRecord("Future", {7}), {}},
        // An unknown type code stores nothing and reads no body: the next record is whole.
        {between(7), {"A", "B"}},
        {between(0x80000000u), {"A", "B"}},
        {between(0xFFFFFFFFu), {"A", "B"}},
        // A later record of the same name replaces the earlier, whatever its type.
        {concat({floatRecord("Gain", 1), floatRecord("Gain", 2), asString.toStream()}), {"Gain"}},
    };
    for (const auto& [stream, expected] : cases) {
        SCOPED_TRACE(stream.size());
        Weight weight;
        CaptureStdout();
        EXPECT_TRUE(weight.loadStream(stream.data(), stream.size()));
        EXPECT_EQ(GetCapturedStdout(), expected.empty() ? kNothingAdded : "");
        EXPECT_EQ(weight.message(), "");
        EXPECT_EQ(names(weight), expected);
        if (weight.records().count("B")) EXPECT_EQ(weight.get<float>("B"), 2.0f);
        if (weight.records().count("Gain")) EXPECT_EQ(weight.get<std::string>("Gain"), "loud");
    }
}

TEST(WeightStream, CountsBeyondTheDataEndLoadWithoutAllocating) {
    // Each record claims more than the bytes left (several only after a 32-bit wrap, which the
    // reader must not apply). Loading them for real would need gigabytes and, under the
    // sanitizers, abort.
    const uint32_t kMax = 0xFFFFFFFFu;
    const uint32_t kOne = 0x3f800000u;  // 1.0f
    const struct {
        const char* what;
        Bytes record;
    } cases[] = {
        {"name length", rawWords({kMax, 0x67696942, 0})},
        {"string length", rawRecord("Big", {2, kMax, 0})},
        {"vector count", rawRecord("Big", {3, kMax, kOne})},
        {"matrix of 2^64 - 2^33 + 1 values, 1 after wrapping",
         rawRecord("Big", {4, kMax, kMax, kOne})},
        {"matrix of 2^32 values, 0 after wrapping", rawRecord("Big", {4, 0x10000, 0x10000})},
        {"matrix of 2^62 values, 0 bytes after wrapping",
         rawRecord("Big", {4, 0x80000000, 0x80000000, kOne})},
        {"vector list count", rawRecord("Big", {5, kMax, 0, 0})},
        {"second inner vector count", rawRecord("Big", {5, 2, 1, kOne, kMax, kOne})},
        {"matrix list count", rawRecord("Big", {6, 0x20000000, 0, 0})},
        {"second inner matrix", rawRecord("Big", {6, 2, 1, 1, kOne, kMax, kMax, kOne})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const Bytes stream = concat({floatRecord("Keep", 1), c.record, floatRecord("After", 2)});
        Weight weight;
        gLargestAllocation = 0;
        ASSERT_TRUE(weight.loadStream(stream.data(), stream.size()));
        EXPECT_LT(gLargestAllocation, kAllocationCeiling);
        EXPECT_EQ(names(weight), std::vector<std::string>{"Keep"});
    }
}

TEST(WeightFile, NonFiniteValueInAnyFloatRecordRefusesTheModel) {
    // The bad value is the last of its record, so every value is checked, not just the first.
    const uint32_t kOne = 0x3f800000u;  // 1.0f
    const auto records = [&](uint32_t last) {
        return std::vector<std::pair<const char*, Bytes>>{
            {"Gain", rawRecord("Gain", {0, last})},
            {"MU", rawRecord("MU", {3, 3, kOne, kOne, last})},
            {"WeightGRU", rawRecord("WeightGRU", {4, 2, 2, kOne, kOne, kOne, last})},
            {"BaesLinear", rawRecord("BaesLinear", {5, 2, 1, kOne, 2, kOne, last})},
            {"WeightLinear", rawRecord("WeightLinear", {6, 2, 1, 1, kOne, 1, 2, kOne, last})},
        };
    };
    // Quiet and signalling NaN of both signs, and both infinities.
    for (uint32_t bits : {0x7fc00000u, 0xffc00000u, 0x7f800001u, 0x7f800000u, 0xff800000u}) {
        for (const auto& [name, record] : records(bits)) {
            SCOPED_TRACE(testing::Message() << name << " 0x" << std::hex << bits);
            const Bytes stream =
                concat({floatRecord("Before", 1), record, floatRecord("After", 2)});
            const Bytes blob = encipheredStream(stream);
            Weight forms[2];
            EXPECT_FALSE(forms[0].loadStream(stream.data(), stream.size()));
            EXPECT_FALSE(forms[1].loadBlob(blob.data(), blob.size()));
            for (const Weight& weight : forms) {
                EXPECT_EQ(weight.message(),
                          "Weight record " + std::string(name) + " holds a non-finite value!");
                EXPECT_TRUE(weight.records().empty());
            }
        }
    }
    // The same records with the largest finite float in that place load.
    Bytes stream;
    for (const auto& entry : records(0x7f7fffffu)) stream = concat({stream, entry.second});
    Weight plain;
    ASSERT_TRUE(plain.loadStream(stream.data(), stream.size())) << plain.message();
    EXPECT_EQ(plain.records().size(), 5u);
    EXPECT_EQ(plain.get<Matrix>("WeightGRU").data.back(), std::numeric_limits<float>::max());

    // Whichever way a host hands the model over, the registry refuses it as it refuses an
    // unreadable file, and accepts the same model once the value is finite (2.0f, last).
    const ScratchDir scratch;
    const std::string dir = scratch.path().string();
    std::ofstream(dir + "/model.cfg") << "WEIGHT model.vlw\n";
    sonel_test::GlobalInstance global;
    CaptureStdout();
    for (uint32_t bits : {0x7fc00000u, 0x7f800000u, 0xff800000u, 0x40000000u}) {
        SCOPED_TRACE(bits);
        const int32_t expected =
            bits == 0x40000000u ? SONEL_AUDIO_OK : SONEL_AUDIO_MODEL_NOT_LOADED;
        const Bytes stream = concat({sampleWriter().toStream(), rawRecord("Gain", {0, bits})});
        const Bytes blob = encipheredStream(stream);
        writeBytes(dir + "/model.vlw", stream);
        writeBytes(dir + "/model.sw", blob);
        EXPECT_EQ(sonelAudioSetModelBlob(blob.data(), static_cast<unsigned>(blob.size()), "blob"),
                  expected);
        EXPECT_EQ(sonelAudioSetModel(wide(dir + "/model.sw").c_str(), "sw"), expected);
        EXPECT_EQ(sonelAudioSetModel(wide(dir + "/model.vlw").c_str(), "vlw"), expected);
        EXPECT_EQ(sonelAudioSetModel(wide(dir + "/model.cfg").c_str(), "cfg"), expected);
    }
    for (const char* name : {"blob", "sw", "vlw", "cfg"})
        EXPECT_EQ(sonelAudioRemoveModel(name), SONEL_AUDIO_OK);
    GetCapturedStdout();
}

TEST(WeightFile, DamagedFilesLoadOrFailCleanly) {
    // Random damage of both forms of a model holding every record type: flipped bytes, cuts and
    // huge values written over whatever field lies there. Each load must end with a clean
    // result; the sanitizer build turns any stray access or huge allocation into a failure.
    const WeightWriter sample = sampleWriter();
    const Bytes forms[] = {sample.toStream(), sample.toEnciphered()};
    const uint32_t huge[] = {0xFFFFFFFFu, 0x80000000u, 0x40000001u, 0x10000u};
    std::mt19937 rng(20240601);
    CaptureStdout();
    for (int i = 0; i < 4000; ++i) {
        const bool isEnciphered = i % 2 == 1;
        Bytes bytes = forms[isEnciphered];
        switch (rng() % 3) {
            case 0:
                for (uint32_t n = 1 + rng() % 4; n > 0; --n)
                    bytes[rng() % bytes.size()] ^= 1 + rng() % 255;
                break;
            case 1:
                bytes.resize(rng() % bytes.size());
                break;
            default:
                std::memcpy(&bytes[rng() % (bytes.size() - 3)], &huge[rng() % 4], 4);
        }
        Weight weight;
        gLargestAllocation = 0;
        const bool loaded = isEnciphered ? weight.loadBlob(bytes.data(), bytes.size())
                                         : weight.loadStream(bytes.data(), bytes.size());
        SCOPED_TRACE(i);
        ASSERT_LT(gLargestAllocation, kAllocationCeiling);
        // A plain stream can only end early or hold a damaged float; an enciphered one can also
        // have a bad header or pad count.
        if (loaded) {
            ASSERT_EQ(weight.message(), "");
        } else {
            const std::string& message = weight.message();
            const bool nonFinite =
                std::regex_match(message, std::regex("Weight record .* holds a non-finite value!"));
            ASSERT_TRUE(nonFinite ||
                        (isEnciphered && (message == kCorrupted || message == kBadHeader)))
                << message;
            ASSERT_TRUE(weight.records().empty());
        }
    }
    GetCapturedStdout();
}

TEST(WeightInfo, RateDurationAndVersionAreReadOnlyFromSupportedRecordsOfTheirType) {
    const struct {
        std::optional<unsigned> rate, frameLength;
        unsigned durationMs;  // 0: rejected
    } cases[] = {
        {16000, 160, 10},
        {8000, 320, 40},
        {24000, 720, 30},
        {32000, 640, 20},
        {16000, 175, 10},
        {48000, 480, 0},
        {44100, 441, 0},
        {16000, 400, 0},
        {16000, 0, 0},
        {16000, std::nullopt, 0},
        {std::nullopt, 160, 0},
        // 4295128 * 1000 wraps in 32 bits to 160704, which would read as 10 ms.
        {16000, 4295128, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.rate.value_or(0) << " Hz, " << c.frameLength.value_or(0));
        Weight weight;
        if (c.rate) weight.set("SampleRate", *c.rate);
        if (c.frameLength) weight.set("FrameLength", *c.frameLength);
        if (c.durationMs) {
            EXPECT_EQ(getWeightInfo(weight), std::make_pair(*c.rate, c.durationMs));
            continue;
        }
        expectSonelException([&] { getWeightInfo(weight); },
                             "there are no needing Weight information in Weight ",
                             "src/weights/weight Line 540 Function getWeightInfo");
    }
    // A rate stored with another type reads as absent.
    Weight floatRate;
    floatRate.set("SampleRate", 16000.0f);
    floatRate.set("FrameLength", 160u);
    EXPECT_THROW(getWeightInfo(floatRate), SonelException);

    // The version is the string record; a numeric one reads as absent.
    floatRate.set("Version", std::string("v0.0.7"));
    EXPECT_EQ(getWeightVersion(floatRate), "v0.0.7");
    floatRate.set("Version", 7u);
    for (const Weight& without : {floatRate, Weight()})
        expectSonelException([&] { getWeightVersion(without); }, "there are no Weight version in Weight ",
                             "src/weights/weight Line 549 Function getWeightVersion");
}
