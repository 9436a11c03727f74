#include "common/model_contract.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "common/memory.h"

namespace zorv {
namespace {

using Shape = std::vector<std::int64_t>;

bool isOpen(std::int64_t dimension) {
    return dimension < 0;
}

std::string textOf(const char* type, const Shape& shape) {
    std::string text;
    for (const std::int64_t dimension : shape) {
        text +=
            (text.empty() ? "" : ", ") + (isOpen(dimension) ? "any" : std::to_string(dimension));
    }
    return std::string(type) + " [" + text + "]";
}

/// The product of the dimensions that are known.
std::size_t knownCount(const Shape& shape) {
    std::size_t count = 1;
    for (const std::int64_t dimension : shape) {
        if (!isOpen(dimension)) count = checkedProduct(count, static_cast<std::size_t>(dimension));
    }
    return count;
}

/// `found` with its open dimensions filled in so that it holds what `wanted` does; as it is where
/// that cannot be known.
Shape completed(Shape found, const Shape& wanted) {
    if (found.size() == wanted.size()) {
        for (std::size_t i = 0; i < found.size(); ++i) {
            if (isOpen(found[i])) found[i] = wanted[i];
        }
        return found;
    }
    const std::size_t known = knownCount(found), count = knownCount(wanted);
    if (std::count_if(found.begin(), found.end(), isOpen) == 1 && known > 0 && count % known == 0) {
        *std::find_if(found.begin(), found.end(), isOpen) =
            static_cast<std::int64_t>(count / known);
    }
    return found;
}

/// The shape to run a tensor in; none when the declared one cannot serve.
std::optional<Shape> agreedShape(const ModelTensor& found, const TensorContract& wanted,
                                 bool input) {
    if (found.type != wanted.type) return std::nullopt;
    if (found.shape.empty()) return wanted.shape;
    const bool sameRank = found.shape.size() == wanted.shape.size();
    if (wanted.fit == Fit::kShape && !sameRank) return std::nullopt;
    Shape shape = completed(found.shape, wanted.shape);
    bool equal = sameRank;
    Shape fixed = shape;  // without the dimensions that are free to differ
    for (std::size_t i = 0; sameRank && i < shape.size(); ++i) {
        if (isOpen(wanted.shape[i])) {
            if (input && !isOpen(shape[i])) return std::nullopt;  // runs choose it
            shape[i] = fixed[i] = -1;
        }
        equal = equal && shape[i] == wanted.shape[i];
    }
    if (equal) return shape;
    const bool isKnown = sameRank || std::none_of(fixed.begin(), fixed.end(), isOpen);
    const std::size_t count = knownCount(fixed), least = knownCount(wanted.shape);
    switch (wanted.fit) {
        case Fit::kShape:
            return std::nullopt;
        case Fit::kCount:
            return isKnown && count == least ? std::optional(shape) : std::nullopt;
        case Fit::kAtLeast:
            return !isKnown || count >= least ? std::optional(shape) : std::nullopt;
    }
    return std::nullopt;
}

/// One side of a model: its inputs or its outputs.
class Side {
  public:
    Side(const Model& model, bool input)
        : model_(model), input_(input), found_(input ? model.inputs() : model.outputs()) {}

    /// The tensors that fit, with the shapes to run them in; the others are breaches.
    std::vector<ModelTensor> agree(const std::vector<TensorContract>& contract,
                                   std::vector<ContractBreach>& breaches) const {
        std::vector<ModelTensor> agreed;
        for (const TensorContract& wanted : contract) {
            const auto place = static_cast<std::size_t>(&wanted - contract.data());
            const ModelTensor* found = find(wanted, place);
            const auto shape = found ? agreedShape(*found, wanted, input_) : std::optional<Shape>();
            if (shape) {
                agreed.push_back({found->name, found->type, *shape});
            } else {
                breaches.push_back({input_, &wanted, found, text(wanted, place, found)});
            }
        }
        return agreed;
    }

    /// Every input has to be fed: the ones that no contract names are breaches.
    void refuseOthers(const std::vector<TensorContract>& contract,
                      std::vector<ContractBreach>& breaches) const {
        for (const ModelTensor& found : found_) {
            const auto isIt = [&](const TensorContract& wanted) {
                const auto place = static_cast<std::size_t>(&wanted - contract.data());
                return find(wanted, place) == &found;
            };
            if (std::any_of(contract.begin(), contract.end(), isIt)) continue;
            breaches.push_back({input_, nullptr, &found,
                                subject(found.name) + "wanted no such input, found " +
                                    textOf(found.type.c_str(), found.shape)});
        }
    }

  private:
    const ModelTensor* find(const TensorContract& wanted, std::size_t place) const {
        if (wanted.name.empty()) return place < found_.size() ? &found_[place] : nullptr;
        const auto at = std::find_if(found_.begin(), found_.end(), [&](const ModelTensor& one) {
            return one.name == wanted.name;
        });
        return at == found_.end() ? nullptr : &*at;
    }

    std::string subject(const std::string& name) const {
        return model_.path() + (input_ ? ": input " : ": output ") + name + ": ";
    }

    std::string names() const {
        std::string text;
        for (const ModelTensor& one : found_) text += (text.empty() ? "" : ", ") + one.name;
        return text.empty() ? "none" : text;
    }

    std::string text(const TensorContract& wanted, std::size_t place,
                     const ModelTensor* found) const {
        const std::string name = found                 ? found->name
                                 : wanted.name.empty() ? std::to_string(place + 1)
                                                       : wanted.name;
        const char* const count = wanted.fit == Fit::kShape   ? ""
                                  : wanted.fit == Fit::kCount ? "as many values as "
                                                              : "at least ";
        return subject(name) + "wanted " + count + textOf(wanted.type, wanted.shape) + ", found " +
               (found ? textOf(found->type.c_str(), found->shape)
                      : "none; the model has " + names());
    }

    const Model& model_;
    const bool input_;
    const std::vector<ModelTensor>& found_;
};

}  // namespace

ModelAgreement::ModelAgreement(const Model& model, const ModelContract& contract) {
    const Side in(model, true), out(model, false);
    inputs = in.agree(contract.inputs, breaches);
    outputs = out.agree(contract.outputs, breaches);
    in.refuseOthers(contract.inputs, breaches);
}

ModelAgreement agreementOf(const Model& model, const ModelContract& contract) {
    ModelAgreement agreement(model, contract);
    if (!agreement.breaches.empty()) throw std::runtime_error(agreement.breaches[0].text);
    return agreement;
}

}  // namespace zorv
