// The expression engine written down plainly: every array at full length and growing, every window
// run again on every call, every mask and tensor made anew. Slow on purpose.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/engine.h"
#include "support/session.h"

namespace zorv::test {

class A2xReference {
  public:
    /// right: look-ahead of the features; shortWindow: trunk and head instead of the encoder.
    A2xReference(const ExpressionDir& dir, int right = 12, bool shortWindow = false,
                 const std::string& encoder = "a2x_w2v")
        : o_(dir.options()),
          pos_(dir.pos()),
          norm_(dir.norm()),
          xs_(dir.xsTarget()),
          shortWindow_(shortWindow),
          right_(shortWindow ? right + 8 : right),
          winRight_(right),
          w2v_(open(encoder)),
          trunk_(open("a2x_trunk")),
          head_(open("a2x_head")),
          enc_(open("a2x_enc_stream")),
          dec_(open(o_.decoder)) {
        if (o_.silencePrime > 0) prime();
        reset(0, 1, true);
    }

    void push(const std::vector<float>& pcm) {
        audio_.insert(audio_.end(), pcm.begin(), pcm.end());
    }
    void finish() { finished_ = true; }
    int total() const { return static_cast<int>((audio_.size() + 639) / 640); }

    int avail() {
        if (decDone_ < ready()) extend(std::min(decDone_ + (shortWindow_ ? 8 : 64), ready()));
        return std::max(0, decDone_ - pulled_);
    }

    Frames pull(int max) {
        if (pulled_ >= decDone_) extend(std::min(ready(), pulled_ + max));
        Frames out;
        const int limit = std::min(decDone_, ready());
        while (pulled_ < limit && static_cast<int>(out.size()) < max) add(out, pulled_++);
        return out;
    }

    void reset(int start, int dir, bool loop) {
        audio_.clear();
        feat_.clear();
        encOut_.clear();
        frames_.clear();
        pulled_ = decDone_ = encDone_ = next_ = featReady_ = 0;
        finished_ = false;
        prev_ = primePrev_.empty() ? std::vector<float>(63) : primePrev_;
        hid_ = primeHid_.empty() ? std::vector<float>(H) : primeHid_;
        start_ = start;
        step_ = dir < 0 ? -1 : 1;
        loop_ = loop;
    }

    /// Whole-clip conversion: the legacy path, chunks of 24, a stream of its own.
    std::vector<float> deltas(const std::vector<float>& pcm) {
        A2xReference clip = *this;
        clip.shortWindow_ = false;
        clip.reset(0, 1, true);
        clip.push(pcm);
        clip.finish();
        const int F = clip.total();
        while (F > clip.featReady_) clip.legacyStep();
        clip.encode(F, 24, F);
        clip.decode(F);
        std::vector<float> out;
        for (const auto& row : clip.frames_) out.insert(out.end(), row.begin(), row.end());
        return out;
    }

    std::string lastError;
    int encoderRuns = 0;  ///< windows run, those for nothing included

  private:
    static constexpr int H = ExpressionDir::kWidth;
    using Row = std::vector<float>;

    static std::shared_ptr<Ort::Session> open(const std::string& model) {
        return std::make_shared<Ort::Session>(testEnv(), modelFile(model).c_str(),
                                              makeSessionOptions(1));
    }

    /// By the compiler's own type.
    static float half(double x) { return static_cast<float>(static_cast<_Float16>(x)); }
    static float widen(std::uint16_t bits) {
        return static_cast<float>(std::bit_cast<_Float16>(bits));
    }

    Row normalizedWindow(std::int64_t first, int n) const {
        Row window(n);
        for (int i = 0; i < n; ++i) {
            const std::int64_t at = first + i;
            if (at >= 0 && at < static_cast<std::int64_t>(audio_.size())) window[i] = audio_[at];
        }
        double mean = 0, var = 0;
        for (const float x : window) mean += x;
        mean /= n;
        for (const float x : window) var += (x - mean) * (x - mean);
        var /= n;
        const float scale = 1.f / std::sqrt(static_cast<float>(var) + 1e-7f);
        for (float& x : window) x = static_cast<float>((x - mean) * scale);
        return window;
    }

    Row embedding(const Row& window) {
        const auto out = runModel(*w2v_, {{"input_values", window, {1, 128000}}}, {"audio_emb"});
        const float* data = out[0].GetTensorData<float>();
        ++encoderRuns;
        return Row(data, data + 1843200);
    }

    static Row featureOf(const Row& emb, int j) {
        Row feature;
        for (int l = 0; l < 12; ++l) {
            for (int d = 0; d < 768; ++d) feature.push_back(half(emb[(l * 200 + j) * 768 + d]));
        }
        return feature;
    }

    void growFeatures(int frames) {
        if (static_cast<int>(feat_.size()) < frames) feat_.resize(frames, Row(9216));
    }

    bool legacyStep() {
        const int b = next_;
        const Row emb = embedding(normalizedWindow(std::int64_t{640} * b, 128000));
        const int L = finished_ ? b + 200 : std::min(std::max(total() - right_, 0), b + 200);
        for (int j = b == 0 ? 0 : 50; j < 200; ++j) {
            const int f = b + j;
            if (f < featReady_) continue;
            if (f >= L) break;
            growFeatures(f + 1);
            feat_[f] = featureOf(emb, j);
        }
        featReady_ = std::max(std::min(L, b + 200), featReady_);
        if (!finished_ && L <= b + 199) return false;
        next_ += 100;
        return true;
    }

    void shortBlocks(int upto) {
        growFeatures(upto);
        while (upto > featReady_) {
            const int d = next_, e = d + 8;
            const std::int64_t end = std::int64_t{e + winRight_} * 640, start = end - 32000;
            if (end > static_cast<std::int64_t>(audio_.size()) && !finished_) return;
            const auto trunk =
                runModel(*trunk_, {{"input_values", normalizedWindow(start, 32000), {1, 32000}}},
                         {"trunk_steps"});
            ++encoderRuns;
            const auto* steps = trunk[0].GetTensorData<std::uint16_t>();
            const int LT = static_cast<int>(trunk[0].GetTensorTypeAndShapeInfo().GetShape()[2]);
            Row x;
            for (int f = d; f < e; ++f) {
                const int base = f > 199 ? (f / 100 - 1) * 100 : 0;
                const double pos = (640.0 * base - static_cast<double>(start)) / 80 +
                                   (f - base) * 8.030150753768844;
                const int i0 = static_cast<int>(std::floor(pos)), i1 = std::min(i0 + 1, LT - 1);
                if (i0 < 0 || i0 >= LT) throw std::runtime_error("w2v_win: trunk pos out of range");
                const double w = pos - i0;
                for (int c = 0; c < 640; ++c) {
                    x.push_back(
                        half((1 - w) * widen(steps[c * LT + i0]) + w * widen(steps[c * LT + i1])));
                }
            }
            const auto emb = runModel(*head_, {{"x", x, {8, 640}}}, {"emb"});
            growFeatures(e);
            for (int k = 0; k < 8; ++k) {
                for (int i = 0; i < 9216; ++i) {
                    feat_[d + k][i] = half(emb[0].GetTensorData<float>()[k * 9216 + i]);
                }
            }
            next_ = featReady_ = e;
        }
    }

    Row encoderRows(const std::vector<Row>& feat, int a, int b) {
        const int n = b - a;
        Row window, mask, pos(pos_.begin() + a * H, pos_.begin() + b * H);
        for (int f = a; f < b; ++f) window.insert(window.end(), feat[f].begin(), feat[f].end());
        for (int r = 0; r < n; ++r) {
            for (int c = 0; c < n; ++c) {
                const bool allowed = r - o_.left <= c && c <= r + o_.window;
                mask.push_back(allowed ? 0 : -std::numeric_limits<float>::infinity());
            }
        }
        const auto out = runModel(*enc_,
                                  {{"feat", window, {1, n, 12, 768}},
                                   {"pos_window", pos, {1, n, H}},
                                   {"attn", mask, {1, 1, n, n}}},
                                  {"rows"});
        const float* data = out[0].GetTensorData<float>();
        return Row(data, data + n * H);
    }

    Row decodeOne(const Row& ctx) {
        const auto out = runModel(
            *dec_, {{"ctx_t", ctx, {1, H}}, {"prev", prev_, {1, 63}}, {"h", hid_, {1, 1, H}}},
            {"m", "h_out"});
        prev_.assign(out[0].GetTensorData<float>(), out[0].GetTensorData<float>() + 63);
        hid_.assign(out[1].GetTensorData<float>(), out[1].GetTensorData<float>() + H);
        Row offsets(63);
        for (int i = 0; i < 63; ++i) offsets[i] = prev_[i] * norm_[63 + i] + norm_[i];
        return offsets;
    }

    void encode(int T, int chunk, int end) {
        encOut_.resize(std::max<std::size_t>(encOut_.size(), T));
        for (int s = encDone_; s < T;) {
            const int e = std::min(s + chunk, T);
            const int a = std::max(0, s - o_.left * o_.layers);
            const int b = std::min({end, o_.rows, e + o_.window * o_.layers});
            const Row rows = encoderRows(feat_, a, b);
            for (int f = s; f < e; ++f) {
                encOut_[f].assign(rows.begin() + (f - a) * H, rows.begin() + (f - a + 1) * H);
            }
            s = e;
        }
        encDone_ = T;
    }

    void decode(int T) {
        frames_.resize(std::max<std::size_t>(frames_.size(), T));
        for (int t = decDone_; t < T; ++t) frames_[t] = decodeOne(encOut_[t]);
        decDone_ = T;
    }

    void extend(int want) {
        const int T = std::min({want, o_.rows, ready()});
        if (decDone_ >= T) return;
        const int F = std::min(total(), T + o_.window * o_.layers);
        try {
            growFeatures(F);
            if (shortWindow_) {
                shortBlocks(F);
            } else {
                while (F > featReady_ && legacyStep()) {
                }
            }
            encode(T, 64, total());
            decode(T);
        } catch (const std::exception& error) {
            lastError = std::string("zorv_a2x extend: ") + error.what();
        }
    }

    int ready() const {
        const int hold = std::max(o_.window * o_.layers, right_);
        return finished_ ? total() : std::max(0, total() - hold);
    }

    void add(Frames& frames, int p) const {
        const int k = walk(step_ * p + start_);
        frames.index.push_back(k);
        for (int i = 0; i < 63; ++i) {
            frames.source.push_back(xs_[k * 63 + i]);
            frames.driving.push_back(xs_[k * 63 + i] + frames_[p][i]);
        }
    }
    /// |q| steps from bundle frame 0, one after the other; back and forth is the same both ways.
    int walk(int q) const {
        int k = 0, d = 1;
        for (int i = 0; o_.nt > 1 && i < std::abs(q); ++i) {
            if (loop_) {
                k = (k + (q < 0 ? -1 : 1) + o_.nt) % o_.nt;
            } else {
                if (k + d < 0 || k + d >= o_.nt) d = -d;
                k += d;
            }
        }
        return k;
    }

    void prime() {
        const int n = std::min(o_.silencePrime, 200);
        const Row emb = embedding(Row(128000));
        std::vector<Row> feat;
        for (int i = 0; i < n; ++i) feat.push_back(featureOf(emb, i));
        const Row rows = encoderRows(feat, 0, n);
        prev_ = Row(63);
        hid_ = Row(H);
        for (int t = 0; t < n; ++t)
            decodeOne(Row(rows.begin() + t * H, rows.begin() + (t + 1) * H));
        primePrev_ = prev_;
        primeHid_ = hid_;
    }

    ExpressionOptions o_;
    Row pos_, norm_, xs_;
    bool shortWindow_;
    int right_, winRight_;
    std::shared_ptr<Ort::Session> w2v_, trunk_, head_, enc_, dec_;
    Row primePrev_, primeHid_;

    Row audio_;
    bool finished_ = false;
    std::vector<Row> feat_, encOut_, frames_;
    int next_ = 0, featReady_ = 0, encDone_ = 0, decDone_ = 0, pulled_ = 0;
    Row prev_, hid_;
    int start_ = 0, step_ = 1;
    bool loop_ = true;
};

}  // namespace zorv::test
