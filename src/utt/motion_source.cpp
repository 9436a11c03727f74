#include "utt/motion_source.h"

#include <string_view>
#include <type_traits>
#include <utility>

#include "a2x/zorv_a2x.h"
#include "common/error.h"
#include "zorv_core.h"

namespace zorv {
namespace {

/// The functions of the motion engine.
struct MotionApi {
    using Engine = zorv_motion;
    static constexpr auto destroy = zorv_motion_destroy;
    static constexpr auto nt = zorv_motion_nt;
    static constexpr auto reset = zorv_motion_reset;
    static constexpr auto setEager = zorv_motion_set_eager;
    static constexpr auto push = zorv_motion_push;
    static constexpr auto finish = zorv_motion_finish;
    static constexpr auto lookAhead = zorv_motion_look_ahead;
    static constexpr auto avail = zorv_motion_avail;
    static constexpr auto pull = zorv_motion_pull;
    static constexpr auto lastError = zorv_motion_last_error;
};

/// Those of the expression engine, one for one.
struct ExpressionApi {
    using Engine = zorv_a2x;
    static constexpr auto destroy = zorv_a2x_destroy;
    static constexpr auto nt = zorv_a2x_nt;
    static constexpr auto reset = zorv_a2x_reset;
    static constexpr auto setEager = zorv_a2x_set_eager;
    static constexpr auto push = zorv_a2x_push;
    static constexpr auto finish = zorv_a2x_finish;
    static constexpr auto lookAhead = zorv_a2x_look_ahead;
    static constexpr auto avail = zorv_a2x_avail;
    static constexpr auto pull = zorv_a2x_pull;
    static constexpr auto lastError = zorv_a2x_last_error;
};

template <class Api>
class EngineSource final : public MotionSource {
  public:
    struct Destroy {
        void operator()(typename Api::Engine* engine) const { Api::destroy(engine); }
    };
    using Owner = std::unique_ptr<typename Api::Engine, Destroy>;

    explicit EngineSource(Owner engine) : engine_(std::move(engine)) {}

    int nt() override { return Api::nt(engine_.get()); }
    void reset(int startFrame, int direction, int loop) override {
        Api::reset(engine_.get(), startFrame, direction, loop);
    }
    void setEager(int value) override { Api::setEager(engine_.get(), value); }
    void push(const float* samples, int n) override { Api::push(engine_.get(), samples, n); }
    void finish() override { Api::finish(engine_.get()); }
    int lookAhead() override { return Api::lookAhead(engine_.get()); }
    int avail() override { return Api::avail(engine_.get()); }
    int pull(int* index, float* source, float* driving, int max) override {
        return Api::pull(engine_.get(), index, source, driving, max);
    }
    const char* error() override { return Api::lastError(); }
    // One of the two families keeps its text over calls that succeed.
    void clearError() override { LastError<typename Api::Engine>::clear(); }
    bool atStreamsEnd() override {
        return std::is_same_v<Api, ExpressionApi> &&
               std::string_view(Api::lastError()).starts_with(a2x::kTableEnd);
    }

  private:
    Owner engine_;
};

/// `engine` is what the family's create function gave: null when it failed.
template <class Api>
std::unique_ptr<MotionSource> sourceOf(typename Api::Engine* engine) {
    // Owned before anything else is allocated.
    typename EngineSource<Api>::Owner owner(engine);
    if (!owner) throw SourceFailure(Api::lastError());
    return std::make_unique<EngineSource<Api>>(std::move(owner));
}

}  // namespace

std::unique_ptr<MotionSource> openMotionSource(const UttOptions& options) {
    const char* dir = options.motionDir.c_str();
    if (options.expression) {
        return sourceOf<ExpressionApi>(zorv_a2x_create(dir, options.threads));
    }
    return sourceOf<MotionApi>(zorv_motion_create(dir, options.threads, options.ep.c_str()));
}

}  // namespace zorv
