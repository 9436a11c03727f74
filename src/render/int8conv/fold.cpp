#include "render/int8conv/fold.h"

#include <algorithm>
#include <array>
#include <optional>

#include "render/onnx_graph.h"

namespace zorv {
namespace {

constexpr std::string_view kDomain = "com.velmarin.int8";
using Pads = std::array<std::int64_t, 4>;  // top, left, bottom, right

/// An Int8ConvVNNI and what is found in front of it.
class Convolution {
  public:
    Convolution(const OnnxGraph& graph, const OnnxNode& node)
        : graph_(graph), node_(node), x_(node.input(0)) {
        const auto of = [&](const char* name, auto& values) {
            const OnnxAttribute* const given = node.attribute(name);
            if (given && given->integers.size() >= values.size()) {
                std::copy_n(given->integers.begin(), values.size(), values.begin());
            }
        };
        of("pads", pads_), of("strides", strides_), of("dilations", dilations_);
        if (const OnnxAttribute* const group = node.attribute("group")) {
            oneGroup_ = group->integer == 1;
        }
        foldable_ = !x_.empty() && !node.attribute("enlarged") && !node.attribute("zero_pads") &&
                    attributesFit(node, [](const OnnxAttribute&) { return true; });
    }

    void fold() {
        if (!foldable_) return;
        pad_ = graph_.soleSource(x_);
        if (!pad_ || !foldPad()) pad_ = nullptr;
        resize_ = graph_.soleSource(x_);
        if (!resize_ || !isSameKernel() || !doubles(*resize_)) resize_ = nullptr;
        if (resize_) x_ = resize_->input(0);
    }

    const OnnxNode* pad() const { return pad_; }
    const OnnxNode* resize() const { return resize_; }

    /// The field that replaces the node's.
    std::string rebuilt() const {
        std::string node, out;
        GsReader reader(node_.field);
        bool atX = true;
        for (GsField field; reader.next(field);) {
            if (field.isBytes(onnx::kNodeInput) && atX) {
                putBytes(node, onnx::kNodeInput, x_);
                atX = false;
            } else if (!(pad_ && field.isBytes(onnx::kNodeAttribute) &&
                         OnnxAttribute(field).name == "pads")) {
                putRaw(node, field);
            }
        }
        constexpr std::uint64_t kInt = 2, kInts = 7;  // attribute types
        const auto put = [&](const char* name, std::uint64_t type, std::uint64_t number,
                             const auto& values) {
            std::string attribute;
            putBytes(attribute, onnx::kAttributeName, name);
            for (const auto value : values) {
                putInt(attribute, number, static_cast<std::uint64_t>(value));
            }
            putInt(attribute, onnx::kAttributeType, type);
            putBytes(node, onnx::kNodeAttribute, attribute);
        };
        constexpr std::array<int, 1> kYes = {1};
        if (pad_) put("pads", kInts, onnx::kAttributeInts, pads_);
        if (pad_) put("zero_pads", kInt, onnx::kAttributeInt, kYes);
        if (resize_) put("enlarged", kInt, onnx::kAttributeInt, kYes);
        putBytes(out, onnx::kGraphNode, node);
        return out;
    }

  private:
    /// Takes the amounts of a Pad of zeros on H and W.
    bool foldPad() {
        const bool fits = pad_->isStandard("Pad") && pads_ == Pads{} && pad_->inputs.size() <= 3 &&
                          attributesFit(*pad_, [](const OnnxAttribute& one) {
                              return one.name == "mode" && one.text == "constant";
                          });
        const auto amounts = graph_.constant(pad_->input(1));
        const auto all = fits && amounts ? amounts->integers(8) : std::nullopt;
        if (!all || std::any_of(all->begin(), all->end(), [](auto one) { return one < 0; }) ||
            ((*all)[0] | (*all)[1] | (*all)[4] | (*all)[5]) != 0) {
            return false;
        }
        if (!pad_->input(2).empty()) {
            const auto value = graph_.constant(pad_->input(2));
            const auto zero = value ? value->floats(1) : std::nullopt;
            if (!zero || (*zero)[0] != 0) return false;
        }
        pads_ = {(*all)[2], (*all)[3], (*all)[6], (*all)[7]};
        x_ = pad_->input(0);
        return true;
    }

    /// 3 x 3, all else 1.
    bool isSameKernel() const {
        const auto weights = graph_.constant(node_.input(1));
        return pads_ == Pads{1, 1, 1, 1} && strides_ == kOnes && dilations_ == kOnes && oneGroup_ &&
               weights && weights->dims.size() == 4 && weights->dims[2] == 3 &&
               weights->dims[3] == 3;
    }

    bool doubles(const OnnxNode& node) const {
        const auto stated = [&](const char* name, std::string_view value) {
            const OnnxAttribute* const given = node.attribute(name);
            return given && given->text == value;
        };
        const bool fits =
            node.isStandard("Resize") && node.inputs.size() <= 4 && node.input(3).empty() &&
            stated("mode", "nearest") && stated("coordinate_transformation_mode", "asymmetric") &&
            stated("nearest_mode", "floor") && attributesFit(node, [](const OnnxAttribute& one) {
                return one.name == "mode" || one.name == "coordinate_transformation_mode" ||
                       one.name == "nearest_mode" || saysNothingNew(one);
            });
        const auto scales = graph_.constant(node.input(2));
        const auto values = fits && scales ? scales->floats(4) : std::nullopt;
        return values && *values == std::vector<float>{1, 1, 2, 2};
    }

    static constexpr std::array<std::int64_t, 2> kOnes = {1, 1};

    const OnnxGraph& graph_;
    const OnnxNode& node_;
    std::string_view x_;
    Pads pads_ = {};
    std::array<std::int64_t, 2> strides_ = kOnes, dilations_ = kOnes;
    bool oneGroup_ = true, foldable_ = false;
    const OnnxNode* pad_ = nullptr;
    const OnnxNode* resize_ = nullptr;
};

bool makesBlocksOfTwo(const OnnxNode& node) {
    return node.isStandard("DepthToSpace") && node.attribute("blocksize") &&
           attributesFit(node, [](const OnnxAttribute& one) {
               return one.name == "blocksize"
                          ? one.integer == 2
                          : one.name == "mode" && (one.text == "DCR" || one.text == "CRD");
           });
}

std::string rebuiltDepthToSpace(const OnnxNode& node) {
    std::string kept, out;
    GsReader reader(node.field);
    for (GsField field; reader.next(field);) {
        if (field.number != onnx::kNodeOpType && field.number != onnx::kNodeDomain) {
            putRaw(kept, field);
        }
    }
    putBytes(kept, onnx::kNodeOpType, "DepthToSpaceFast");
    putBytes(kept, onnx::kNodeDomain, kDomain);
    putBytes(out, onnx::kGraphNode, kept);
    return out;
}

std::vector<Int8Fold> foldGraph(const OnnxGraph& graph, std::vector<WireEdit>& edits) {
    std::vector<Int8Fold> folds;
    OnnxGraph::Readers dropped;
    const auto replace = [&](const GsField& field, std::string with = {}) {
        edits.push_back({field.raw, field.rawLength, std::move(with)});
    };
    for (const OnnxNode& node : graph.nodes()) {
        if (node.opType != "Int8ConvVNNI" || node.domain != kDomain) continue;
        Convolution convolution(graph, node);
        convolution.fold();
        const auto drop = [&](const OnnxNode* source, Int8Fold::Kind kind) {
            if (!source) return;
            for (const std::string_view name : source->inputs) ++dropped[name];
            folds.push_back({kind, std::string(source->label()), std::string(node.label())});
            replace(source->field);
        };
        drop(convolution.resize(), Int8Fold::Kind::kResize);
        drop(convolution.pad(), Int8Fold::Kind::kPad);
        if (convolution.resize() || convolution.pad()) replace(node.field, convolution.rebuilt());
    }
    for (const OnnxNode& node : graph.nodes()) {
        if (!makesBlocksOfTwo(node)) continue;
        folds.push_back({Int8Fold::Kind::kDepthToSpace, std::string(node.label()), ""});
        replace(node.field, rebuiltDepthToSpace(node));
    }
    graph.finish(edits, dropped);
    return folds;
}

}  // namespace

std::vector<Int8Fold> foldIntoInt8Conv(std::string_view model, std::string& out) {
    if (model.find("Int8ConvVNNI") == std::string_view::npos) return {};
    const auto graph = OnnxGraph::of(model);
    const bool concerned =
        graph && std::any_of(graph->nodes().begin(), graph->nodes().end(), [](const auto& node) {
            return node.opType == "Int8ConvVNNI" && node.domain == kDomain;
        });
    if (!concerned) return {};
    std::vector<WireEdit> edits;
    std::vector<Int8Fold> folds = foldGraph(*graph, edits);
    if (!folds.empty()) writeEdited(model, edits, "", out);
    return folds;
}

}  // namespace zorv
