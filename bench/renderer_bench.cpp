// What Renderer::render adds to a bare run of the same binding, on the demo subject's model.
//   renderer_bench, with ZORV_DEMO_BUNDLE naming the bundle (default: build/demo/bundle)
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "bundle/zorv_bundle.h"
#include "common/model_run.h"
#include "common/ort.h"
#include "demo_subject.h"
#include "render/zorv_renderer.h"
#include "stopwatch.h"

namespace {

using zorv::bench::median;

/// The standard graph of batch 1 with its inputs bound, filled once.
class BareModel {
  public:
    explicit BareModel(const zorv::Manifest& manifest, int threads)
        : side_(manifest.crop),
          pooled_(64 * 32 * 32),
          image_(3 * static_cast<std::size_t>(side_) * side_),
          kpDriving_(63),
          kpSource_(63),
          rgb_(image_.size()) {
        Ort::SessionOptions options = zorv::makeSessionOptions(threads);
        options.AddConfigEntry("session.intra_op.allow_spinning", "0");
        Ort::Env env = zorv::makeOrtEnv("bench");
        const std::string path = manifest.modelPath("render");
        Ort::Session session(env, path.c_str(), options);
        model_.emplace(zorv::makeModel(path, std::move(env), std::move(session)),
                       zorv::ModelContract{{{"pooled64", {1, 64, 32, 32}},
                                            {"P_rgb", {1, 3, side_, side_}},
                                            {"kp_driving", {1, 21, 3}},
                                            {"kp_source", {1, 21, 3}}},
                                           {{"rgb", {1, 3, side_, side_}}}});
        model_->bindInput(0, pooled_.data());
        model_->bindInput(1, image_.data());
        model_->bindInput(2, kpDriving_.data());
        model_->bindInput(3, kpSource_.data());
        model_->bindOutput(0, rgb_.data());
    }

    void fill(const zorv::Identity& identity, const zorv::Drive& drive, std::size_t k) {
        const int frame = drive.si[k];
        zorv::halfToFloat(identity.pooled64(frame), pooled_.data(), pooled_.size());
        zorv::halfToFloat(identity.P(frame), image_.data(), image_.size());
        std::copy_n(drive.xs.data() + 63 * k, 63, kpSource_.data());
        std::copy_n(drive.xd.data() + 63 * k, 63, kpDriving_.data());
    }

    void run() { model_->run(); }

  private:
    std::int64_t side_;
    std::vector<float> pooled_, image_, kpDriving_, kpSource_, rgb_;
    std::optional<zorv::ModelRun> model_;
};

double milliseconds(auto&& work) {
    return 1e3 * zorv::bench::wallSeconds(work);
}

/// Bare runs and renders by turns, so that whatever else the machine does meets both alike.
void renderBesideBareRun(benchmark::State& state) {
    const zorv::Manifest manifest = zorv::loadManifest(zorv::bench::demoBundle());
    const zorv::Identity identity(manifest);
    const zorv::Drive drive = zorv::loadDrive(manifest);
    const int threads = static_cast<int>(state.range(0));
    BareModel model(manifest, threads);
    zorv::Renderer renderer(manifest, identity, "render", threads, "");
    std::vector<double> bare, whole;
    std::size_t k = 0;
    for (auto _ : state) {
        model.fill(identity, drive, k);
        bare.push_back(milliseconds([&] { model.run(); }));
        whole.push_back(milliseconds([&] {
            renderer.render(&drive.si[k], drive.xs.data() + 63 * k, drive.xd.data() + 63 * k, 1);
        }));
        k = (k + 1) % drive.si.size();
    }
    state.counters["bare_ms"] = median(bare);
    state.counters["render_ms"] = median(whole);
    state.counters["added_percent"] = 100 * (median(whole) / median(bare) - 1);
}

BENCHMARK(renderBesideBareRun)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
