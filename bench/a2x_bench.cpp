// What the expression engine adds to its models, how often it runs the speech encoder, and whether
// time per frame grows with the stream; on the demo subject's expression directory.
//   a2x_bench, with ZORV_DEMO_EXPRESSION (default build/demo/expression) and the encoder, trunk and
//   head beside it (speech_encoder.onnx, speech_trunk.onnx, speech_head.onnx)
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "a2x/zorv_a2x.h"
#include "demo_subject.h"
#include "stopwatch.h"

namespace {

namespace fs = std::filesystem;
using namespace zorv::a2x;
using zorv::bench::median;

fs::path expressionDir() {
    return fs::absolute(zorv::bench::demoExpression());
}

/// The demo's expression directory with a positional table of `rows` rows.
class CutDirectory {
  public:
    explicit CutDirectory(std::int64_t rows) : meta(expressionDir().string()) {
        std::string name = (fs::temp_directory_path() / "a2x_bench.XXXXXX").string();
        path = ::mkdtemp(name.data());
        for (const char* file :
             {"a2x_norm.f32", "xs_target.bin", "a2x_enc_stream.onnx", "a2x_dec.onnx"}) {
            fs::create_symlink(expressionDir() / file, path / file);
        }
        std::ofstream(path / "a2x_meta.json")
            << "{\"h\": " << meta.h << ", \"window\": " << meta.window
            << ", \"left\": " << meta.left << ", \"layers\": " << meta.layers
            << ", \"maxlen\": " << rows << "}";
        std::vector<char> table(static_cast<std::size_t>(rows * meta.h) * sizeof(float));
        std::ifstream(expressionDir() / "a2x_pos.f32", std::ios::binary)
            .read(table.data(), static_cast<std::streamsize>(table.size()));
        std::ofstream(path / "a2x_pos.f32", std::ios::binary)
            .write(table.data(), static_cast<std::streamsize>(table.size()));
    }
    ~CutDirectory() { fs::remove_all(path); }

    Meta meta;
    fs::path path;
};

std::unique_ptr<zorv_a2x> openEngine(const CutDirectory& dir, bool shortWindow) {
    const fs::path models = expressionDir().parent_path();
    ::setenv("W2V_ONNX", (models / "speech_encoder.onnx").c_str(), 1);
    ::setenv("ZORV_A2X_W2V_WIN_ONNX", (models / "speech_trunk.onnx").c_str(), 1);
    ::setenv("ZORV_A2X_W2V_HEAD_ONNX", (models / "speech_head.onnx").c_str(), 1);
    ::setenv("ZORV_A2X_W2V_WIN", shortWindow ? "1" : "0", 1);
    return std::make_unique<zorv_a2x>(dir.path.string(), 1);
}

/// Speech-like: a pitch with harmonics, syllables at 4 Hz, pauses.
std::vector<float> clip(double seconds) {
    std::vector<float> audio(static_cast<std::size_t>(seconds * 16000));
    for (std::size_t i = 0; i < audio.size(); ++i) {
        const double t = static_cast<double>(i) / 16000;
        const double syllable = std::max(0.0, std::sin(2 * M_PI * 4 * t));
        double voice = 0;
        for (int h = 1; h <= 12; ++h) voice += std::sin(2 * M_PI * 130 * h * t) / h;
        audio[i] = static_cast<float>(std::fmod(t, 3.0) < 2.4 ? 0.15 * syllable * voice : 0);
    }
    return audio;
}

/// Processor time of the calling thread, on which models with one thread run: other work on the
/// machine counts little.
double milliseconds(auto&& work) {
    return 1e3 * zorv::bench::cpuSeconds(work);
}

/// The models alone, on the same shapes, with every tensor made beforehand.
class BareModels {
  public:
    BareModels(const CutDirectory& dir, bool shortWindow)
        : meta_(dir.meta),
          w2v_(get_shared_w2v("", 1)),
          enc_(provider_.open((dir.path / "a2x_enc_stream.onnx").string())),
          dec_(provider_.open((dir.path / "a2x_dec.onnx").string()), meta_.h),
          state_(DecoderState::zero(meta_.h)),
          ctx_(static_cast<std::size_t>(meta_.h)) {
        if (shortWindow) short_ = std::make_unique<ShortWindow>(12);
        const std::vector<float> audio = clip(8);
        std::copy(audio.begin(), audio.end(), w2v_.samples());
        normalize(w2v_.samples(), kWindowSamples);
        if (short_) std::copy_n(w2v_.samples(), kShortSamples, short_->samples());
    }

    void speech() {
        if (short_) {
            short_->runTrunk();
            short_->runHead();
        } else {
            w2v_.run();
        }
    }

    void encode(std::int64_t n) {
        auto& run = encodings_[n];
        if (!run) run = std::make_unique<Encoding>(enc_, meta_, n);
        run->model.run();
    }

    void decode() { dec_.step(ctx_.data(), state_); }

  private:
    struct Encoding {
        Encoding(const std::shared_ptr<const zorv::Model>& opened, const Meta& meta, std::int64_t n)
            : feat(static_cast<std::size_t>(n) * kFeatureFloats),
              pos(static_cast<std::size_t>(n) * static_cast<std::size_t>(meta.h)),
              mask(static_cast<std::size_t>(n * n)),
              model(opened, {{{"feat", {1, n, 12, 768}},
                              {"pos_window", {1, n, meta.h}},
                              {"attn", {1, 1, n, n}}},
                             {{"", {1, n, meta.h}}}}) {
            bandedMask(n, meta.left, meta.window, mask.data());
            model.bindInput(0, feat.data());
            model.bindInput(1, pos.data());
            model.bindInput(2, mask.data());
            model.run();
        }
        std::vector<float> feat, pos, mask;
        zorv::ModelRun model;
    };

    const Meta meta_;
    ProviderChoice provider_{1, "enc/dec"};
    LegacyWindow w2v_;
    std::unique_ptr<ShortWindow> short_;
    std::shared_ptr<const zorv::Model> enc_;
    StreamDecoder dec_;
    DecoderState state_;
    std::vector<float> ctx_;
    std::map<std::int64_t, std::unique_ptr<Encoding>> encodings_;
};

/// Pushes of range(1) ms, each followed by avail and pull, and after each the bare models by turns.
/// Counters are per second of audio; added_percent is of real time on one core.
void engineBesideItsModels(benchmark::State& state) {
    constexpr std::int64_t kSeconds = 24, kRows = 40 * 25;
    const bool shortWindow = state.range(0);
    const auto push = static_cast<std::size_t>(state.range(1)) * 16;
    const CutDirectory dir(kRows);
    const auto engine = openEngine(dir, shortWindow);
    BareModels models(dir, shortWindow);
    const std::vector<float> audio = clip(kSeconds);
    std::vector<float> src(64 * 63), drv(64 * 63);
    const std::int64_t left = dir.meta.fieldOf(dir.meta.left),
                       right = dir.meta.fieldOf(dir.meta.window);

    for (auto _ : state) {
        std::vector<double> whole(kSeconds), bare(kSeconds);
        std::int64_t runs = 0, done = 0;
        engine->reset(0, 1, true);
        for (std::size_t at = 0; at + push <= audio.size(); at += push) {
            const std::size_t second = at / 16000;
            whole[second] +=
                milliseconds([&] { engine->push(audio.data() + at, static_cast<int>(push)); });
            for (int frames = -1; frames != 0;) {
                whole[second] += milliseconds([&] {
                    engine->avail();
                    frames = engine->pull(nullptr, src.data(), drv.data(), 64);
                });
                const std::int64_t due = engine->encoderRuns() - runs;
                const std::int64_t n = std::min(engine->total(), done + frames + right) -
                                       std::max<std::int64_t>(0, done - left);
                runs += due;
                done += frames;
                if (frames > 0) models.encode(n);  // makes the tensors of a new shape
                bare[second] += milliseconds([&] {
                    for (std::int64_t i = 0; i < due; ++i) models.speech();
                    if (frames > 0) models.encode(n);
                    for (int i = 0; i < frames; ++i) models.decode();
                });
            }
        }
        std::vector<double> added;  // without the first windows, which are still filling
        for (std::size_t s = 4; s < kSeconds; ++s) added.push_back(whole[s] - bare[s]);
        state.counters["models_ms"] = median(bare);
        state.counters["engine_ms"] = median(whole);
        state.counters["added_percent"] = median(added) / 10;
        state.counters["encoder_runs"] = static_cast<double>(runs) / kSeconds;
        state.counters["frames"] = static_cast<double>(done) / kSeconds;
    }
}

/// Pushes of 500 ms: time per frame over 30 s against a stream that fills the positional table,
/// by turns.
void lengthOfTheStream(benchmark::State& state) {
    constexpr std::int64_t kShort = 750, kRows = 4500;
    const CutDirectory dir(kRows);
    const auto engine = openEngine(dir, state.range(0));
    const std::vector<float> audio = clip((kRows + 50) / 25.0);
    std::vector<float> src(64 * 63), drv(64 * 63);
    const auto perFrame = [&](std::int64_t frames) {
        engine->reset(0, 1, true);
        std::int64_t pulled = 0;
        const double ms = milliseconds([&] {
            for (std::size_t at = 0; pulled < frames && at < audio.size(); at += 8000) {
                engine->push(audio.data() + at, 8000);
                while (pulled < frames && engine->avail() > 0) {
                    pulled += engine->pull(nullptr, src.data(), drv.data(), 64);
                }
            }
        });
        if (pulled < frames) state.SkipWithError("the stream ended early");
        return ms / static_cast<double>(pulled);
    };
    std::vector<double> brief, full;
    for (auto _ : state) {
        for (int i = 0; i < 5; ++i) {
            brief.push_back(perFrame(kShort));
            if (i % 2 == 0) full.push_back(perFrame(kRows));
        }
    }
    state.counters["brief_ms"] = median(brief);
    state.counters["full_ms"] = median(full);
    state.counters["ratio"] = median(full) / median(brief);
}

BENCHMARK(engineBesideItsModels)
    ->ArgNames({"short", "push_ms"})
    ->ArgsProduct({{0, 1}, {20, 500}})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(lengthOfTheStream)
    ->ArgName("short")
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
