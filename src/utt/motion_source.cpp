#include "utt/motion_source.h"

#include <string_view>
#include <type_traits>
#include <utility>
#include <zorv_core.hpp>

#include "a2x/zorv_a2x.h"
#include "common/error.h"

namespace zorv {
namespace {

template <class Family>
class EngineSource final : public MotionSource {
  public:
    struct Destroy {
        void operator()(typename Family::Handle* engine) const { Family::destroy(engine); }
    };
    using Owner = std::unique_ptr<typename Family::Handle, Destroy>;

    explicit EngineSource(Owner engine) : engine_(std::move(engine)) {}

    int nt() override { return Family::nt(engine_.get()); }
    void reset(int startFrame, int direction, int loop) override {
        Family::reset(engine_.get(), startFrame, direction, loop);
    }
    void setEager(int value) override { Family::setEager(engine_.get(), value); }
    void push(const float* samples, int n) override { Family::push(engine_.get(), samples, n); }
    void finish() override { Family::finish(engine_.get()); }
    int lookAhead() override { return Family::lookAhead(engine_.get()); }
    int avail() override { return Family::avail(engine_.get()); }
    int pull(int* index, float* source, float* driving, int max) override {
        return Family::pull(engine_.get(), index, source, driving, max);
    }
    const char* error() override { return Family::lastError(); }
    // Calls of the expression engine that succeed do not clear its text.
    void clearError() override { LastError<typename Family::Handle>::clear(); }
    bool atStreamsEnd() override {
        return std::is_same_v<Family, ExpressionFamily> &&
               std::string_view(Family::lastError()).starts_with(a2x::kTableEnd);
    }

  private:
    Owner engine_;
};

/// `engine` is what the family's create function gave: null when it failed.
template <class Family>
std::unique_ptr<MotionSource> sourceOf(typename Family::Handle* engine) {
    // Owned before anything else is allocated.
    typename EngineSource<Family>::Owner owner(engine);
    if (!owner) throw SourceFailure(Family::lastError());
    return std::make_unique<EngineSource<Family>>(std::move(owner));
}

}  // namespace

std::unique_ptr<MotionSource> openMotionSource(const UttOptions& options) {
    const char* dir = options.motionDir.c_str();
    if (options.expression) {
        return sourceOf<ExpressionFamily>(zorv_a2x_create(dir, options.threads));
    }
    return sourceOf<MotionFamily>(zorv_motion_create(dir, options.threads, options.ep.c_str()));
}

}  // namespace zorv
