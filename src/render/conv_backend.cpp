#include "render/conv_backend.h"

#include <stdexcept>

#include "common/file.h"
#include "render/onnx_wire.h"

namespace zorv {
namespace {

bool isNamed(const GsField& tensor, std::string_view name) {
    bool named = false;
    GsReader reader(tensor);
    for (GsField field; reader.next(field);) {
        if (field.isBytes(onnx::kTensorName)) named = field.text() == name;
    }
    return named;
}

bool hasInitializer(const GsField& graph, std::string_view name) {
    GsReader reader(graph);
    for (GsField field; reader.next(field);) {
        if (field.isBytes(onnx::kGraphInitializer) && isNamed(field, name)) return true;
    }
    return false;
}

}  // namespace

bool ConvBackend::available() {
    return false;
}

bool ConvBackend::graphSupported(const std::string& path) {
    try {
        std::string bytes;
        if (readWholeFile(path, bytes) != ReadStatus::kOk) return false;
        const auto* begin = reinterpret_cast<const std::uint8_t*>(bytes.data());
        GsReader reader(begin, begin + bytes.size());
        bool supported = false;
        for (GsField field; reader.next(field);) {
            if (field.isBytes(onnx::kModelGraph) && hasInitializer(field, "onnx::Conv_313")) {
                supported = true;  // go on: a file that is malformed further on is refused
            }
        }
        return supported;
    } catch (const std::exception&) {
        return false;
    }
}

std::unique_ptr<ConvBackend> ConvBackend::create(const std::string&, int) {
    throw std::runtime_error("zorv_conv: built without NEON fp16 support");
}

}  // namespace zorv
