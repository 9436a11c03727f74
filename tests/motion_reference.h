// The motion engine as a plain transcription: direct Fourier sums, whole arrays that are never
// shortened, snapshots instead of running updates. Slow on purpose.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "support/engine.h"
#include "support/session.h"

namespace zorv::test {

using Floats = std::vector<float>;

/// Log band magnitudes of one window, [80][21].
inline Floats referenceFeatures(const Floats& samples, const Floats& window, const Floats& binmat) {
    static const auto wave = [] {
        std::array<double, 512> values{};
        for (int i = 0; i < 512; ++i) values[i] = std::cos(2 * M_PI * i / 512);
        return values;
    }();
    Floats padded;
    for (int i = -256; i < 6480 + 256; ++i) {
        padded.push_back(samples[i < 0 ? -i : i >= 6480 ? 2 * 6479 - i : i]);
    }
    Floats features(80 * 21);
    for (int t = 0; t < 21; ++t) {
        double x[512];
        for (int n = 0; n < 512; ++n) x[n] = static_cast<double>(padded[320 * t + n]) * window[n];
        std::vector<double> magnitude(257);
        for (int k = 0; k < 257; ++k) {
            double re = 0, im = 0;
            for (int n = 0; n < 512; ++n) {
                re += x[n] * wave[k * n % 512];
                im += x[n] * wave[(k * n + 128) % 512];
            }
            magnitude[k] = std::sqrt(re * re + im * im);
        }
        for (int m = 0; m < 80; ++m) {
            double sum = 0;
            for (int k = 0; k < 257; ++k) sum += magnitude[k] * binmat[k * 80 + m];
            features[m * 21 + t] = static_cast<float>(std::log(sum + 1e-8));
        }
    }
    return features;
}

class ReferenceMotion {
  public:
    explicit ReferenceMotion(const TestMotion& files, int nt)
        : files_(files),
          nt_(nt),
          student_(open("hubert_student")),
          lmdm_(open("lmdm")),
          stitch_(open("stitch")) {
        for (const auto& [name, count] : files.tables()) tables_[name] = files.floats(name);
        reset(0, 1, false);
    }

    void reset(int start, int direction, bool loop) {
        audio_.clear();
        rows_.clear();
        results_.clear();
        final_.clear();
        total_ = -1;
        window_ = chunk_ = emitted_ = provisional_ = eagerCovered_ = eagerHighest_ = 0;
        finalBuilt_ = realChunk_ = saved_ = referenceSet_ = false;
        cursor_ = start;
        direction_ = direction;
        loop_ = loop;
        const Floats& ch = tables_["ch_xs_info.bin"];
        cond_ = {ch[258] - 1};
        for (const auto& [from, to] :
             {std::pair{126, 192}, {262, 328}, {192, 258}, {259, 262}, {0, 63}}) {
            cond_.insert(cond_.end(), ch.begin() + from, ch.begin() + to);
        }
    }
    void push(const float* samples, int n) { audio_.insert(audio_.end(), samples, samples + n); }
    void finish() { total_ = covered(); }
    void setEager(int value) { eager_ = value; }

    int avail() {
        advance();
        if (finalBuilt_) return static_cast<int>(final_.size()) - emitted_;
        const int results = static_cast<int>(results_.size());
        if (eager_ == 0) {
            return std::max(0,
                            std::min(static_cast<int>(rows_.size()) - 1, results - 11) - emitted_);
        }
        if (realChunk_ || (emitted_ == 0 && covered() > eagerCovered_) ||
            covered() - eagerCovered_ >= eager_) {
            eagerAdvance();
        }
        return std::max(0,
                        std::min(static_cast<int>(results_.size()) - 1, eagerHighest_) - emitted_);
    }

    void pull(Frames& frames, int max) {
        for (int n = std::min(avail(), max); n > 0; --n) emit(frames);
    }

    std::vector<Floats> handedOut;  ///< motion vectors as emitted

  private:
    Ort::Session open(const char* key) {
        return {testEnv(), files_.path(std::string(key) + ".onnx").c_str(), makeSessionOptions(1)};
    }
    int covered() const { return (static_cast<int>(audio_.size()) + 639) / 640; }

    void processWindow(int f) {
        Floats samples(6480);
        for (int i = 0; i < 6480; ++i) {
            const int at = 640 * f - 2000 + i;
            if (at >= 0 && at < static_cast<int>(audio_.size())) samples[i] = audio_[at];
        }
        Floats mel = referenceFeatures(samples, tables_["hubert_stft_window.bin"],
                                       tables_["hubert_stft_binmat.bin"]);
        Floats speech =
            floatsOf(runModel(student_, {{"mel", mel, {1, 80, 21}}}, {"features"}).front());
        for (int i = 0; i < 20 * 1024; ++i) {
            speech[i] = speech[i] * tables_["hubert_fstd.bin"][i % 1024] +
                        tables_["hubert_fmean.bin"][i % 1024];
        }
        const Floats& emotions = tables_["emo.bin"];
        for (int i = 0; i < 5; ++i) {
            Floats row;
            for (int j = 0; j < 1024; ++j) {
                row.push_back((speech[(6 + 2 * i) * 1024 + j] + speech[(7 + 2 * i) * 1024 + j]) /
                              2);
            }
            const int emotion = (f + i) % (static_cast<int>(emotions.size()) / 8);
            row.insert(row.end(), emotions.begin() + 8 * emotion,
                       emotions.begin() + 8 * emotion + 8);
            for (const char* name : {"ch_eye_open.bin", "ch_eye_ball.bin", "ch_sc.bin"}) {
                row.insert(row.end(), tables_[name].begin(), tables_[name].end());
            }
            rows_.push_back(row);
        }
    }

    /// Pose of frame f averaged with its neighbours in `frames`.
    static Floats smoothed(const std::vector<Floats>& frames, int f) {
        Floats out = frames[f];
        const int first = std::max(f - 1, 0);
        const int last = std::min(f + 1, static_cast<int>(frames.size()) - 1);
        for (int d = 0; d < 202; ++d) {
            double sum = 0;
            for (int i = first; i <= last; ++i) sum += frames[i][d];
            out[d] = static_cast<float>(sum / (last - first + 1));
        }
        return out;
    }
    void smooth(int a, int b) {
        const std::vector<Floats> snapshot = results_;
        for (int f = std::max(a, 0); f < std::min(b, static_cast<int>(snapshot.size())); ++f) {
            results_[f] = smoothed(snapshot, f);
        }
    }
    Floats clamped(Floats motion) {
        const Floats& bounds = tables_["v_min_max.bin"];
        for (int d = 0; d < 265; ++d) {
            motion[d] = std::min(std::max(motion[d], bounds[d]), bounds[265 + d]);
        }
        return motion;
    }

    void runChunk(int start, int limit, Floats& cond) {
        const int n = std::min(std::min(limit, static_cast<int>(rows_.size())) - start, 80);
        Floats rows;
        for (int i = 0; i < 80; ++i) {
            const Floats& row = rows_[start + std::min(i, n - 1)];
            rows.insert(rows.end(), row.begin(), row.end());
        }
        const Floats all = floatsOf(
            runModel(lmdm_, {{"cond", cond, {1, 265}}, {"rows", rows, {1, 80, 1103}}}, {"motion"})
                .front());
        std::vector<Floats> predicted;
        for (int i = 0; i < 80; ++i) {
            predicted.emplace_back(all.begin() + 265 * i, all.begin() + 265 * (i + 1));
        }
        if (results_.empty()) {
            results_ = predicted;
            smooth(0, 80);
        } else {
            const int N = static_cast<int>(results_.size());
            for (int k = 0; k < 10; ++k) {
                const float w = static_cast<float>(k) / 10;
                for (int d = 0; d < 265; ++d) {
                    float& value = results_[N - 10 + k][d];
                    value = (1 - w) * value + w * predicted[k][d];
                }
            }
            results_.insert(results_.end(), predicted.begin() + 10, predicted.end());
            smooth(N - 10, N + 1);
        }
        cond = results_[results_.size() - 11];
    }

    void advance() {
        rows_.resize(rows_.size() - provisional_);
        provisional_ = 0;
        if (eager_ == 0) restore();
        while (total_ >= 0 ? window_ < total_
                           : 640 * window_ + 4480 <= static_cast<int>(audio_.size())) {
            processWindow(window_);
            window_ += 5;
        }
        if (total_ >= 0 && static_cast<int>(rows_.size()) > total_) rows_.resize(total_);
        const auto due = [&] {
            const int rows = static_cast<int>(rows_.size());
            return total_ >= 0 ? 70 * chunk_ < std::min(total_, rows) : rows > 70 * chunk_ + 79;
        };
        while (due()) {
            restore();
            runChunk(70 * chunk_++, 1 << 30, cond_);
            realChunk_ = true;
        }
        if (total_ >= 0 && !finalBuilt_) {
            restore();
            results_.resize(std::min<std::size_t>(total_, results_.size()));
            smooth(0, static_cast<int>(results_.size()));
            for (const Floats& motion : results_) final_.push_back(clamped(motion));
            finalBuilt_ = true;
        }
    }

    void restore() {
        if (!saved_) return;
        results_.resize(savedCount_);
        std::copy(savedTail_.begin(), savedTail_.end(), results_.end() - savedTail_.size());
        saved_ = false;
    }

    void eagerAdvance() {
        const std::size_t real = rows_.size();
        for (int f = window_; f < covered(); f += 5) processWindow(f);
        provisional_ = static_cast<int>(rows_.size() - real);
        restore();
        if (covered() > 70 * chunk_) {
            savedCount_ = results_.size();
            savedTail_.assign(results_.end() - std::min<std::size_t>(10, savedCount_),
                              results_.end());
            saved_ = true;
            Floats cond = cond_;
            for (int start = 70 * chunk_; start < covered(); start += 70) {
                runChunk(start, covered(), cond);
            }
        }
        eagerCovered_ = covered();
        eagerHighest_ = std::max(eagerHighest_, covered() - 1);
        realChunk_ = false;
    }

    void emit(Frames& frames) {
        const Floats motion =
            finalBuilt_ ? final_[emitted_] : clamped(smoothed(results_, emitted_));
        handedOut.push_back(motion);
        frames.index.push_back(cursor_);
        int next = cursor_ + direction_;
        if (loop_) {
            next = (next + nt_) % nt_;
        } else if (nt_ == 1) {
            next = 0;
        } else if (next == nt_ || next < 0) {
            direction_ = -direction_;
            next = cursor_ + direction_;
        }
        emitFrame(motion, frames);
        cursor_ = next;
        ++emitted_;
    }

    static double angle(const float* logits) {
        double sum = 0, weighted = 0;
        for (int i = 0; i < 66; ++i) {
            sum += std::exp(static_cast<double>(logits[i]));
            weighted += i * std::exp(static_cast<double>(logits[i]));
        }
        return (weighted / sum * 3 - 97.5) * M_PI / 180;
    }

    Floats place(const float* info, double pitch, const Floats& expression) const {
        using std::cos, std::sin;
        const double y = angle(info + 262), r = angle(info + 192);
        // Row vectors: turned by pitch about x, then yaw about y, then roll about z.
        const double X[3][3] = {
            {1, 0, 0}, {0, cos(pitch), sin(pitch)}, {0, -sin(pitch), cos(pitch)}};
        const double Y[3][3] = {{cos(y), 0, -sin(y)}, {0, 1, 0}, {sin(y), 0, cos(y)}};
        const double Z[3][3] = {{cos(r), sin(r), 0}, {-sin(r), cos(r), 0}, {0, 0, 1}};
        Floats out;
        for (int k = 0; k < 21; ++k) {
            std::vector<double> v(info + 63 + 3 * k, info + 66 + 3 * k);
            for (const auto* m : {&X, &Y, &Z}) {
                std::vector<double> turned(3);
                for (int a = 0; a < 3; ++a) {
                    for (int b = 0; b < 3; ++b) turned[a] += v[b] * (*m)[b][a];
                }
                v = turned;
            }
            for (int a = 0; a < 3; ++a) {
                const double move = a == 2 ? 0 : info[259 + a];
                out.push_back(
                    static_cast<float>((v[a] + expression[3 * k + a]) * info[258] + move));
            }
        }
        return out;
    }

    void emitFrame(const Floats& motion, Frames& frames) {
        if (!referenceSet_) reference_.assign(motion.begin() + 202, motion.end());
        referenceSet_ = true;
        const float* info = tables_["src_xs_info.bin"].data() + 328 * cursor_;
        const float gain = tables_["ch_xs_info.bin"][258] / tables_["src_xs_info.bin"][258];
        const Floats plain(info, info + 63);
        Floats moved = plain;
        for (const int k : {6, 12, 14, 17, 19, 20}) {
            for (int j = 3 * k; j < 3 * k + 3; ++j) {
                moved[j] += (motion[202 + j] - reference_[j]) * gain;
            }
        }
        const std::string meta = readFile(files_.path("meta.json"));
        const auto setting = [&](const char* key) {
            return std::strtof(meta.c_str() + meta.find(':', meta.find(key)) + 1, nullptr);
        };
        const double pitch = angle(info + 126);
        Floats xs = place(info, pitch, plain);
        Floats xd = place(info, pitch + setting("delta_pitch") * M_PI / 180, moved);
        const Floats stitched =
            floatsOf(runModel(stitch_, {{"xs", xs, {1, 63}}, {"xd", xd, {1, 63}}}, {"kp"}).front());
        const float* target = tables_["xs_target.bin"].data() + 63 * cursor_;
        for (int j = 0; j < 63; ++j) {
            frames.source.push_back(target[j]);
            frames.driving.push_back((stitched[j] - xs[j]) * setting("s_bridge") + target[j]);
        }
    }

    const TestMotion& files_;
    const int nt_;
    std::map<std::string, Floats> tables_;
    Ort::Session student_, lmdm_, stitch_;
    Floats audio_, cond_, reference_;
    std::vector<Floats> rows_, results_, final_, savedTail_;
    int total_, window_, chunk_, emitted_, provisional_, eagerCovered_, eagerHighest_, cursor_,
        direction_, eager_ = 0;
    bool finalBuilt_, realChunk_, saved_, referenceSet_, loop_;
    std::size_t savedCount_ = 0;
};

}  // namespace zorv::test
