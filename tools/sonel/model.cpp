// `sonel model ...`: inspect weight files and convert between the plain and enciphered forms.
#include <algorithm>
#include <iomanip>
#include <iostream>
#include <memory>
#include <variant>

#include "sonel/command.h"
#include "utils/wide_string.h"
#include "weights/weight.h"
#include "weights/weight_writer.h"

namespace sonel_cli {

namespace {

using SONEL::CONTAINERS::Matrix;
using SONEL::WEIGHTS::Weight;
using SONEL::WEIGHTS::WeightWriter;

// Lists show their first few element shapes; models hold lists of a handful of layers.
constexpr size_t kListShapesShown = 4;

// Indexed by record type code.
constexpr const char* kTypeNames[] = {"float",  "uint32",      "string",     "vector",
                                      "matrix", "vector_list", "matrix_list"};
constexpr int kTypeNameWidth = 13;  // "matrix_list" and two blanks

std::string shapeOf(const std::vector<float>& vector) {
    return "[" + std::to_string(vector.size()) + "]";
}
std::string shapeOf(const Matrix& matrix) {
    return "[" + std::to_string(matrix.rows) + " x " + std::to_string(matrix.columns) + "]";
}
template <typename T>
std::string shapeOf(const std::vector<T>& list) {
    std::string shape = std::to_string(list.size()) + " of";
    for (size_t i = 0; i < list.size() && i < kListShapesShown; ++i)
        shape += " " + shapeOf(list[i]);
    if (list.size() > kListShapesShown) shape += " ...";
    return shape;
}

struct ShapeVisitor {
    std::string operator()(float) const { return "scalar"; }
    std::string operator()(unsigned) const { return "scalar"; }
    std::string operator()(const std::string& text) const {
        return "[" + std::to_string(text.size()) + "]";
    }
    template <typename T>
    std::string operator()(const T& value) const {
        return shapeOf(value);
    }
};

bool hasExtension(const std::string& path, const std::string& extension) {
    const size_t dot = path.rfind('.');
    return dot != std::string::npos && path.compare(dot + 1, std::string::npos, extension) == 0;
}

std::unique_ptr<Weight> loadWeight(const std::string& path) {
    auto weight = std::make_unique<Weight>();
    if (!weight->load(SONEL::UTILS::fromUtf8(path))) {
        reportError("cannot load " + path + ": " + weight->message());
        return nullptr;
    }
    return weight;
}

int info(const Args& args) {
    if (args.size() != 1) return reportError("usage: sonel model info FILE", kExitUsage);
    const auto weight = loadWeight(args[0]);
    if (!weight) return kExitFailure;
    const WeightWriter records(*weight);
    size_t nameWidth = 0;
    for (const auto& record : records.records())
        nameWidth = std::max(nameWidth, record.name.size());
    for (const auto& record : records.records()) {
        std::cout << std::left << std::setw(static_cast<int>(nameWidth + 2)) << record.name
                  << std::setw(kTypeNameWidth) << kTypeNames[record.value.index()]
                  << std::visit(ShapeVisitor{}, record.value) << "\n";
    }
    // The values that identify a model and its geometry, in the order the registry keys it.
    for (const char* name : {"Version", "SampleRate", "FrameLength", "ModelName", "TimeStamp"}) {
        if (const auto* text = weight->find<std::string>(name))
            std::cout << name << ": " << *text << "\n";
        else if (const auto* number = weight->find<unsigned>(name))
            std::cout << name << ": " << *number << "\n";
    }
    return 0;
}

// Loads IN in whatever form it has and writes OUT in the form `extension` names.
int convert(const Args& args, const char* form, const std::string& extension) {
    if (args.size() != 2)
        return reportError(std::string("usage: sonel model ") + form + " IN OUT." + extension,
                           kExitUsage);
    if (!hasExtension(args[1], extension))
        return reportError(std::string(form) + " writes a ." + extension + " file, not " + args[1],
                           kExitUsage);
    const auto weight = loadWeight(args[0]);
    if (!weight) return kExitFailure;
    if (!WeightWriter(*weight).writeFile(args[1])) return reportError("cannot write " + args[1]);
    return 0;
}

}  // namespace

int runModel(const Args& args) {
    if (!args.empty()) {
        const Args rest(args.begin() + 1, args.end());
        if (args[0] == "info") return info(rest);
        if (args[0] == "pack") return convert(rest, "pack", "sw");
        if (args[0] == "unpack") return convert(rest, "unpack", "vlw");
    }
    return reportError("model needs one of: info, pack, unpack (run 'sonel' for usage)",
                       kExitUsage);
}

}  // namespace sonel_cli
