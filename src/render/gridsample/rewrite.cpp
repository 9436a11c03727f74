#include "render/gridsample/rewrite.h"

#include <optional>

namespace zorv {
namespace {

constexpr std::uint64_t kModelGraph = 7;
constexpr std::uint64_t kModelOpsetImport = 8;
constexpr std::uint64_t kOpsetDomain = 1;
constexpr std::uint64_t kGraphNode = 1;
constexpr std::uint64_t kNodeOpType = 4;
constexpr std::uint64_t kNodeAttribute = 5;
constexpr std::uint64_t kNodeDomain = 7;
constexpr std::uint64_t kAttributeName = 1;
constexpr std::uint64_t kAttributeInt = 3;
constexpr std::uint64_t kAttributeString = 4;

constexpr std::string_view kFastDomain = "com.velmarin";

// What a rebuilt node ends with: op_type "GridSampleFast", domain "com.velmarin".
constexpr std::string_view kFastNodeTail =
    "\x22\x0e"
    "GridSampleFast"
    "\x3a\x0c"
    "com.velmarin";
// opset_import { domain: "com.velmarin" version: 1 }
constexpr std::string_view kFastOpsetImport =
    "\x42\x10\x0a\x0c"
    "com.velmarin"
    "\x10\x01";

constexpr char kNodeTag = 10;   // field 1 of a graph, length-delimited
constexpr char kGraphTag = 58;  // field 7 of a model, length-delimited

GsReader readerOver(std::string_view bytes) {
    const auto* begin = reinterpret_cast<const std::uint8_t*>(bytes.data());
    return {begin, begin + bytes.size()};
}

void putRaw(std::string& out, const GsField& field) {
    out.append(reinterpret_cast<const char*>(field.raw), field.rawLength);
}

std::size_t varintLength(std::uint64_t value) {
    std::size_t length = 1;
    for (; value >= 0x80; value >>= 7) ++length;
    return length;
}

struct Attribute {
    std::string_view name;
    std::uint64_t integer = 0;
    std::string_view text;
};

Attribute parseAttribute(const GsField& message) {
    Attribute attribute;
    GsReader reader(message);
    for (GsField field; reader.next(field);) {
        if (field.isBytes(kAttributeName)) attribute.name = field.text();
        if (field.isBytes(kAttributeString)) attribute.text = field.text();
        if (field.number == kAttributeInt && field.type == WireType::kVarint) {
            attribute.integer = field.varint;
        }
    }
    return attribute;
}

/// What the attributes of a node say; a repeated one must fit every time.
struct SamplingSettings {
    std::optional<bool> bilinear;
    std::optional<bool> borderPadded;
    bool cornersAligned = false;

    void add(const Attribute& attribute) {
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

bool replacesField(const GsField& nodeField) {
    return nodeField.number == kNodeOpType || nodeField.number == kNodeAttribute ||
           nodeField.number == kNodeDomain;
}

std::size_t rebuiltNodeLength(const GsField& node) {
    std::size_t length = kFastNodeTail.size();
    GsReader reader(node);
    for (GsField field; reader.next(field);) {
        if (!replacesField(field)) length += field.rawLength;
    }
    return length;
}

void putRebuiltNode(std::string& out, const GsField& node) {
    out.push_back(kNodeTag);
    gsPutVarint(out, rebuiltNodeLength(node));
    GsReader reader(node);
    for (GsField field; reader.next(field);) {
        if (!replacesField(field)) putRaw(out, field);
    }
    out.append(kFastNodeTail);
}

bool isRewritableNode(const GsField& graphField) {
    return graphField.isBytes(kGraphNode) && gsIsRewritableGridSample(graphField.text());
}

/// A graph as it will be. Sizes are known before anything is written, so that the new model is
/// written once, into one allocation.
struct GraphPlan {
    std::size_t rewritten = 0;
    std::size_t payloadLength = 0;
};

GraphPlan planGraph(const GsField& graph) {
    GraphPlan plan;
    GsReader reader(graph);
    for (GsField field; reader.next(field);) {
        if (isRewritableNode(field)) {
            ++plan.rewritten;
            const std::size_t length = rebuiltNodeLength(field);
            plan.payloadLength += 1 + varintLength(length) + length;
        } else {
            plan.payloadLength += field.rawLength;
        }
    }
    return plan;
}

void putRebuiltGraph(std::string& out, const GsField& graph) {
    out.push_back(kGraphTag);
    gsPutVarint(out, planGraph(graph).payloadLength);
    GsReader reader(graph);
    for (GsField field; reader.next(field);) {
        if (isRewritableNode(field)) {
            putRebuiltNode(out, field);
        } else {
            putRaw(out, field);
        }
    }
}

bool importsFastDomain(const GsField& opsetImport) {
    bool imports = false;
    GsReader reader(opsetImport);
    for (GsField field; reader.next(field);) {
        if (field.isBytes(kOpsetDomain)) imports = field.text() == kFastDomain;
    }
    return imports;
}

struct ModelPlan {
    std::size_t rewritten = 0;
    std::size_t length = 0;
    bool importsFastDomain = false;
};

ModelPlan planModel(std::string_view bytes) {
    ModelPlan plan;
    GsReader reader = readerOver(bytes);
    for (GsField field; reader.next(field);) {
        if (field.isBytes(kModelGraph)) {
            const GraphPlan graph = planGraph(field);
            plan.rewritten += graph.rewritten;
            plan.length += 1 + varintLength(graph.payloadLength) + graph.payloadLength;
            continue;
        }
        if (field.isBytes(kModelOpsetImport) && importsFastDomain(field)) {
            plan.importsFastDomain = true;
        }
        plan.length += field.rawLength;
    }
    if (!plan.importsFastDomain) plan.length += kFastOpsetImport.size();
    return plan;
}

}  // namespace

void gsPutVarint(std::string& out, std::uint64_t value) {
    for (; value >= 0x80; value >>= 7) out.push_back(static_cast<char>((value & 0x7f) | 0x80));
    out.push_back(static_cast<char>(value));
}

GridSampleVerdict judgeGridSample(std::string_view nodeBytes) {
    std::string_view opType;
    std::string_view domain;
    SamplingSettings settings;
    GsReader reader = readerOver(nodeBytes);
    for (GsField field; reader.next(field);) {
        if (field.isBytes(kNodeOpType)) opType = field.text();
        if (field.isBytes(kNodeDomain)) domain = field.text();
        if (field.isBytes(kNodeAttribute)) settings.add(parseAttribute(field));
    }
    if (opType != "GridSample") return GridSampleVerdict::kOtherNode;
    if (!domain.empty() && domain != "ai.onnx") return GridSampleVerdict::kDomain;
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
    const ModelPlan plan = planModel(model);
    if (plan.rewritten == 0) return 0;
    out.clear();
    out.reserve(plan.length);
    GsReader reader = readerOver(model);
    for (GsField field; reader.next(field);) {
        if (field.isBytes(kModelGraph)) {
            putRebuiltGraph(out, field);
        } else {
            putRaw(out, field);
        }
    }
    if (!plan.importsFastDomain) out.append(kFastOpsetImport);
    return plan.rewritten;
}

std::size_t rewriteGridSampleToFast(std::string& bytes) {
    std::string rewritten;
    const std::size_t count = rewriteGridSampleToFast(std::string_view(bytes), rewritten);
    if (count > 0) bytes = std::move(rewritten);
    return count;
}

}  // namespace zorv
