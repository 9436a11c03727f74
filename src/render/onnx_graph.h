// The top-level graph of a serialised ONNX model: who makes and who reads each name.
#pragma once

#include <map>
#include <optional>
#include <string_view>
#include <vector>

#include "render/onnx_node.h"

namespace zorv {

/// Views look into the model's bytes. Constant once made.
class OnnxGraph {
  public:
    /// Nothing when the model has no graph, several that are to be merged, or subgraphs that lie
    /// too deep to look into. Throws like GsReader::next.
    static std::optional<OnnxGraph> of(std::string_view model);

    const std::vector<OnnxNode>& nodes() const { return nodes_; }

    /// The node whose only output is `name`, when one other node reads it, once, and nobody else.
    const OnnxNode* soleSource(std::string_view name) const;
    /// The constant of that name: an initializer that no input overrides, or a Constant's.
    std::optional<OnnxTensor> constant(std::string_view name) const;

    /// What edits take off the graph; constants that then have no reader go, too, since the runtime
    /// would warn of them.
    using Readers = std::map<std::string_view, int>;
    void finish(std::vector<WireEdit>& edits, const Readers& gone) const;

  private:
    struct Maker {
        int count = 0;
        std::size_t node = kNone, initializer = kNone;
    };
    static constexpr std::size_t kNone = SIZE_MAX;

    bool add(const GsField& graph, int depth);
    bool addNode(const GsField& field, int depth);
    const Maker* soleMaker(std::string_view name) const;
    int readersOf(std::string_view name) const;

    std::vector<OnnxNode> nodes_;
    std::vector<OnnxTensor> initializers_;
    Readers readers_;
    std::map<std::string_view, Maker> makers_;
};

/// Whether every attribute of `node` is named once and `allowed`, which judges one, lets it pass.
template <class Allowed>
bool attributesFit(const OnnxNode& node, const Allowed& allowed) {
    for (const OnnxAttribute& one : node.attributes) {
        if (node.attribute(one.name) != &one || !allowed(one)) return false;
    }
    return true;
}

/// Whether an attribute of a Resize changes nothing: it has no effect or states the default.
bool saysNothingNew(const OnnxAttribute& ofResize);

}  // namespace zorv
