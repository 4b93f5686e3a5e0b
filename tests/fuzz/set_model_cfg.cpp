// sonelAudioSetModel on a control file. The input up to its first NUL byte is the file's text;
// the bytes after it are written as "fuzz.vlw" beside it, so a WEIGHT entry can name a weight
// the fuzzer shapes too. "tiny.vlw" and "tiny.sw", a small working model, are there as well, so
// entries after a good WEIGHT line tune a model that really runs.
#include <stdlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "fuzz_support.h"
#include "model_factory.h"

namespace {

std::string gFolder;

void writeFile(const std::string& path, const uint8_t* data, size_t size) {
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

void removeFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(gFolder, ignored);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sonel_fuzz::initialise();
    std::string pattern =
        (std::filesystem::temp_directory_path() / "sonel-fuzz-cfg-XXXXXX").string();
    sonel_fuzz::check(mkdtemp(pattern.data()) != nullptr, "scratch folder");
    gFolder = pattern;
    std::atexit(removeFolder);
    sonel_test::CleanerModelSpec spec;
    spec.weightScale = 1.0f;
    spec.outputBias = 0.0f;
    const SONEL::WEIGHTS::WeightWriter tiny = sonel_test::cleanerModel(spec);
    sonel_fuzz::check(tiny.writeFile(gFolder + "/tiny.vlw") && tiny.writeFile(gFolder + "/tiny.sw"),
                      "write the tiny model");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const uint8_t* split = std::find(data, data + size, 0);
    writeFile(gFolder + "/model.cfg", data, static_cast<size_t>(split - data));
    const uint8_t* weight = split == data + size ? split : split + 1;
    writeFile(gFolder + "/fuzz.vlw", weight, static_cast<size_t>(data + size - weight));

    const std::string path = gFolder + "/model.cfg";
    if (sonelAudioSetModel(std::wstring(path.begin(), path.end()).c_str(), "fuzz") !=
        SONEL_AUDIO_OK)
        return 0;
    sonel_fuzz::cleanWithModel("fuzz");
    sonel_fuzz::check(sonelAudioRemoveModel("fuzz") == SONEL_AUDIO_OK,
                      "remove the registered model");
    return 0;
}
