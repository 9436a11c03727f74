#include "render/gridsample/rewrite.h"

#include <optional>

#include "render/onnx_node.h"

namespace zorv {
namespace {

constexpr std::string_view kFastDomain = "com.velmarin";

/// What the attributes of a node say; a repeated one must fit every time.
struct SamplingSettings {
    std::optional<bool> bilinear;
    std::optional<bool> borderPadded;
    bool cornersAligned = false;

    void add(const OnnxAttribute& attribute) {
        if (attribute.name == "mode") {
            const bool fits = attribute.text == "linear" || attribute.text == "bilinear";
            bilinear = bilinear.value_or(true) && fits;
        } else if (attribute.name == "padding_mode") {
            borderPadded = borderPadded.value_or(true) && attribute.text == "border";
        } else if (attribute.name == "align_corners") {
            cornersAligned = cornersAligned || attribute.integer != 0;
        }
    }
};

/// The field that replaces a node's: attributes go, since the fast operator has none.
std::string rebuilt(const GsField& node) {
    std::string kept, out;
    GsReader reader(node);
    for (GsField field; reader.next(field);) {
        const bool replaced = field.number == onnx::kNodeOpType ||
                              field.number == onnx::kNodeAttribute ||
                              field.number == onnx::kNodeDomain;
        if (!replaced) putRaw(kept, field);
    }
    putBytes(kept, onnx::kNodeOpType, "GridSampleFast");
    putBytes(kept, onnx::kNodeDomain, kFastDomain);
    putBytes(out, onnx::kGraphNode, kept);
    return out;
}

}  // namespace

GridSampleVerdict judgeGridSample(std::string_view nodeBytes) {
    const OnnxNode node(nodeBytes);
    SamplingSettings settings;
    for (const OnnxAttribute& attribute : node.attributes) settings.add(attribute);
    if (node.opType != "GridSample") return GridSampleVerdict::kOtherNode;
    if (!node.isStandard("GridSample")) return GridSampleVerdict::kDomain;
    if (!settings.bilinear.value_or(false)) return GridSampleVerdict::kMode;
    if (!settings.borderPadded.value_or(false)) return GridSampleVerdict::kPaddingMode;
    if (settings.cornersAligned) return GridSampleVerdict::kAlignCorners;
    return GridSampleVerdict::kRewritable;
}

const char* describe(GridSampleVerdict verdict) {
    switch (verdict) {
        case GridSampleVerdict::kOtherNode:
            return "no GridSample";
        case GridSampleVerdict::kRewritable:
            return "bilinear, border padding, corners not aligned";
        case GridSampleVerdict::kDomain:
            return "of a domain other than ai.onnx";
        case GridSampleVerdict::kMode:
            return "mode is not stated as linear or bilinear";
        case GridSampleVerdict::kPaddingMode:
            return "padding_mode is not stated as border";
        case GridSampleVerdict::kAlignCorners:
            return "align_corners is not 0";
    }
    return "";
}

std::size_t rewriteGridSampleToFast(std::string_view model, std::string& out) {
    std::vector<WireEdit> edits;
    GsReader reader(model);
    for (GsField graph; reader.next(graph);) {
        if (!graph.isBytes(onnx::kModelGraph)) continue;
        GsReader nodes(graph);
        for (GsField node; nodes.next(node);) {
            if (node.isBytes(onnx::kGraphNode) && gsIsRewritableGridSample(node.text())) {
                edits.push_back({node.raw, node.rawLength, rebuilt(node)});
            }
        }
    }
    const bool imported = importsDomain(model, kFastDomain);
    if (edits.empty()) return 0;
    writeEdited(model, edits, imported ? "" : opsetImport(kFastDomain), out);
    return edits.size();
}

std::size_t rewriteGridSampleToFast(std::string& bytes) {
    std::string rewritten;
    const std::size_t count = rewriteGridSampleToFast(std::string_view(bytes), rewritten);
    if (count > 0) bytes = std::move(rewritten);
    return count;
}

}  // namespace zorv
