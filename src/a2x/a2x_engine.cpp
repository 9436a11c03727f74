// The state machine: what is buffered, what is due.
#include <algorithm>
#include <stdexcept>
#include <utility>

#include "a2x/a2x_settings.h"
#include "a2x/zorv_a2x.h"
#include "common/error.h"
#include "common/log.h"
#include "common/units.h"

namespace zorv::a2x {
namespace {

constexpr std::int64_t kStreamChunk = 64;  ///< frames per encoder run
constexpr std::int64_t kClipChunk = 24;    ///< the same in whole-clip conversion
/// Frames of audio that windows may hear behind the last frame that the positional table allows.
constexpr std::int64_t kTailFrames = kWindowFrames + 56;

int engineThreads(int threads) {
    return integerSetting("ZORV_A2X_THREADS", threads < 5 ? threads : 4);
}

}  // namespace
}  // namespace zorv::a2x

using namespace zorv::a2x;
using zorv::kKeypointFloats;
using zorv::kSamplesPerFrame;

zorv_a2x::zorv_a2x(const std::string& dir, int threads)
    : threads_(engineThreads(threads)),
      provider_(threads_, "enc/dec"),
      meta_(dir),
      tables_(dir, meta_),
      enc_left_(meta_.fieldOf(meta_.left)),
      enc_right_(meta_.fieldOf(meta_.window)),
      w2v_right_(std::max(integerSetting("ZORV_A2X_W2V_RIGHT", 12), 0)),
      limit_(static_cast<std::int64_t>(tables_.pos.size()) / meta_.h),
      audio_((limit_ + kTailFrames) * kSamplesPerFrame, 1),
      track_(limit_),
      enc_out_(limit_, static_cast<std::size_t>(meta_.h)),
      frames_(limit_, kKeypointFloats) {
    openSharedEncoder();
    enc_.emplace(provider_.open(dir + "/a2x_enc_stream.onnx"), meta_);
    dec_.emplace(provider_.open(dir + "/a2x_dec.onnx"), meta_.h);
    primeWithSilence();
}

void zorv_a2x::openSharedEncoder() {
    const char* path = encoderPath();
    if (!path) throw std::runtime_error("$W2V_ONNX not set");
    w2v_ = get_shared_w2v(path, threads_);
    if (!isOne("ZORV_A2X_W2V_WIN") || !get_shared_w2v_win(threads_)) return;
    short_ = std::make_unique<ShortWindow>(w2v_right_);
    use_win_ = true;
    win_right_ = w2v_right_;
    w2v_right_ += kBlockFrames;  // a block is run when all of its frames can be
}

void zorv_a2x::primeWithSilence() {
    const std::int64_t wanted = integerSetting("ZORV_A2X_SILENCE_PRIME", meta_.silence_prime);
    if (wanted < 1) return;
    const auto n = std::min<std::int64_t>(wanted, kWindowFrames);
    try {
        prime_ = computePrime(n);
        zorv::logLine("[zorv_a2x] silence-primed AR state cached (%d frames)", static_cast<int>(n));
    } catch (const std::exception& error) {
        zorv::logLine("[zorv_a2x] silence-prime failed (%s) -- legacy zero state",
                      zorv::oneLine(error.what()).c_str());
    }
}

DecoderState zorv_a2x::computePrime(std::int64_t n) {
    if (n > limit_) {
        throw std::runtime_error(std::to_string(n) + " frames, but a2x_pos.f32 has " +
                                 std::to_string(limit_) + " rows");
    }
    const std::vector<float>& silence = zero_window_emb(w2v_);
    PagedRows feat(n, kFeatureFloats);
    for (int f = 0; f < n; ++f) takeFeature(silence.data(), f, feat.row(f));
    const float* rows = enc_->run(feat.row(0), tables_.pos.data(), n);
    DecoderState state = DecoderState::zero(meta_.h);
    for (std::int64_t t = 0; t < n; ++t) dec_->step(rows + t * meta_.h, state);
    return state;
}

DecoderState zorv_a2x::startState() const {
    return prime_.empty() ? DecoderState::zero(meta_.h) : prime_;
}

LegacyWindow& zorv_a2x::legacyWindow() {
    if (!legacy_) legacy_ = std::make_unique<LegacyWindow>(w2v_);
    return *legacy_;
}

void zorv_a2x::push(const float* pcm, int n) {
    if (n < 1) return;
    if (enc_done_ < limit_) {  // behind the table's end it only counts
        const std::int64_t room = std::max<std::int64_t>(audio_.rows() - samples_, 0);
        const auto stored = std::min<std::int64_t>(n, room);
        if (stored > 0) std::copy_n(pcm, stored, audio_.row(samples_));
    }
    samples_ += n;
}

AudioView zorv_a2x::audioView() const {
    return {audio_.row(0), samples_, std::min(samples_, audio_.rows()), finished_};
}

std::int64_t zorv_a2x::lookAheadSamples() const {
    return std::max(enc_right_, w2v_right_) * kSamplesPerFrame + 1;
}

std::int64_t zorv_a2x::ready() const {
    return readyFrames(total(), finished_, std::max(enc_right_, w2v_right_));
}

std::int64_t zorv_a2x::avail() {
    const std::int64_t block = use_win_ ? kBlockFrames : kStreamChunk;
    if (dec_done_ < ready()) extend(std::min(dec_done_ + block, ready()));
    noticeTableEnd();
    return dec_done_ - pulled_;
}

// Only after the last frame was handed out: a host that stops at this text loses no frame.
void zorv_a2x::noticeTableEnd() {
    if (end_told_ || state_.empty() || pulled_ < limit_ || total() <= limit_) return;
    const std::string text = std::string(kTableEnd) + ": " + std::to_string(limit_) + " frames (" +
                             std::to_string(limit_ / zorv::kFramesPerSecond) +
                             " s) are spoken; audio beyond them is dropped until zorv_a2x_reset";
    end_told_ = true;
    zorv::A2xError::set(text);
    zorv::logLine("[zorv_a2x] %s", text.c_str());
}

int zorv_a2x::pull(int* idx, float* src, float* drv, int max) {
    if (pulled_ >= dec_done_) extend(std::min(ready(), pulled_ + max));
    noticeTableEnd();
    const std::int64_t end = std::min({dec_done_, ready(), pulled_ + max});
    int count = 0;
    for (; pulled_ < end; ++pulled_, ++count) {
        const std::int32_t k = replayIndex(pulled_, start_, step_, loop_, tables_.nt);
        if (idx) idx[count] = k;
        const float* own = tables_.xs_target.data() + static_cast<std::size_t>(k) * kKeypointFloats;
        const float* offsets = frames_.row(pulled_);
        for (std::size_t i = 0; i < kKeypointFloats; ++i) {
            *src++ = own[i];
            *drv++ = own[i] + offsets[i];
        }
    }
    frames_.releaseBefore(pulled_);
    return count;
}

void zorv_a2x::reset(std::int32_t start, std::int32_t dir, bool loop) {
    DecoderState state = startState();  // may fail: before anything has changed
    audio_.clear();
    track_.clear();
    enc_out_.clear();
    frames_.clear();
    samples_ = enc_done_ = dec_done_ = pulled_ = 0;
    finished_ = end_told_ = false;
    state_ = std::move(state);
    start_ = start;
    step_ = dir < 0 ? -1 : 1;
    loop_ = loop;
}

void zorv_a2x::extend(std::int64_t want) {
    const std::int64_t upto = std::min({want, limit_, ready()});
    if (dec_done_ >= upto || state_.empty()) return;
    try {
        encode(upto);
        decode(upto);
    } catch (const std::exception& error) {
        zorv::A2xError::set("zorv_a2x extend", error);
    }
}

void zorv_a2x::produceFeatures(std::int64_t upto) {
    if (use_win_) {
        fill_feat_win(*short_, audioView(), win_right_, upto, track_);
    } else {
        fill_feat_legacy(legacyWindow(), audioView(), w2v_right_, upto, track_);
    }
}

const float* zorv_a2x::encodeChunk(PagedRows& feat, std::int64_t s, std::int64_t e,
                                   std::int64_t end) {
    const std::int64_t a = std::max<std::int64_t>(0, s - enc_left_);
    const std::int64_t b = std::min(end, e + enc_right_);
    const float* rows = enc_->run(feat.row(a), tables_.pos.data() + a * meta_.h, b - a);
    return rows + (s - a) * meta_.h;
}

// Features are made chunk by chunk and released behind each: a call may want any number of frames.
void zorv_a2x::encode(std::int64_t upto) {
    while (enc_done_ < upto) {
        const std::int64_t s = enc_done_;
        const std::int64_t e = std::min(s + kStreamChunk, upto);
        const std::int64_t end = std::min(total(), limit_);
        produceFeatures(std::min(end, e + enc_right_));
        const float* rows = encodeChunk(track_.feat, s, e, end);
        std::copy_n(rows, (e - s) * meta_.h, enc_out_.row(s));
        enc_done_ = e;
        releaseBehindEncoder();
    }
}

void zorv_a2x::releaseBehindEncoder() {
    if (enc_done_ >= limit_) {  // the stream ends here
        track_.feat.releaseBefore(limit_);
        audio_.releaseBefore(audio_.rows());
        return;
    }
    track_.feat.releaseBefore(std::max<std::int64_t>(enc_done_ - enc_left_, 0));
    const std::int64_t heard = use_win_ ? shortWindowStart(track_.w2v_next, win_right_)
                                        : track_.w2v_next * kSamplesPerFrame;
    audio_.releaseBefore(std::max<std::int64_t>(heard, 0));
}

void zorv_a2x::decodeFrame(const float* ctx, DecoderState& state, float* offsets) {
    dec_->step(ctx, state);
    for (std::size_t i = 0; i < kKeypointFloats; ++i) {
        offsets[i] = state.prev[i] * tables_.norm_std[i] + tables_.norm_mean[i];
    }
}

// A failure part way counts none of the call's frames as decoded, though the state has moved on
// over those before it.
void zorv_a2x::decode(std::int64_t upto) {
    for (std::int64_t t = dec_done_; t < upto; ++t) {
        decodeFrame(enc_out_.row(t), state_, frames_.row(t));
    }
    dec_done_ = upto;
    enc_out_.releaseBefore(dec_done_);
}

void zorv_a2x::deltas(const float* pcm, int n, float* out) {
    const std::int64_t F = frameCount(n);
    if (F > limit_) {
        throw std::runtime_error("clip of " + std::to_string(F) + " frames, but a2x_pos.f32 has " +
                                 std::to_string(limit_) + " rows");
    }
    FeatureTrack track(F);
    DecoderState state = startState();
    const AudioView audio{pcm, n, n, true};
    for (std::int64_t s = 0; s < F; s += kClipChunk) {
        const std::int64_t e = std::min(s + kClipChunk, F);
        fill_feat_legacy(legacyWindow(), audio, w2v_right_, std::min(F, e + enc_right_), track);
        const float* rows = encodeChunk(track.feat, s, e, F);
        for (std::int64_t t = s; t < e; ++t, rows += meta_.h, out += kKeypointFloats) {
            decodeFrame(rows, state, out);
        }
        track.feat.releaseBefore(std::max<std::int64_t>(e - enc_left_, 0));
    }
}
