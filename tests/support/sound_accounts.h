// What a host can check of the sound that it gets back: every piece is what was pushed there, in
// order and without a hole that was not told, and every utterance has one beginning and one end.
#pragma once

#include <zorv_core.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace zorv::test {

class SoundAccounts {
  public:
    /// nt: frames of the bundle.
    SoundAccounts(int rate, bool skips, int nt) : samples_(rate / 25), skips_(skips), nt_(nt) {}

    void pushed(std::uint64_t number, const std::int16_t* pcm, std::size_t n) {
        if (number != begun_ && number != begun_ + 1) note("numbers do not count on", number);
        if (number > begun_) utterances_[begun_ = number];
        const auto found = utterances_.find(number);
        if (found == utterances_.end()) {  // it is over before its end mark
            if (!mayFail_) note("a push to what is over", number);
            return;
        }
        found->second.sound.insert(found->second.sound.end(), pcm, pcm + n);
    }
    /// An interrupt has returned.
    void interrupted() {
        dead_ = begun_;
        ramps_ = kind_ != 0;
        cut_ = true;
    }
    /// From now on a failure may end an utterance.
    void mayFail() { mayFail_ = true; }

    void pulled(const zorv_utt_frame& frame) {
        const std::int64_t skipped = frame.pts - pts_ - 1;
        pts_ = frame.pts;
        if (skipped != 0 && (!skips_ || skipped < 0)) note("time does not run on", frame.utterance);
        // What was left out among frames that an interrupt dropped has not moved the body.
        const std::int64_t body = (frame_ + 1 + (cut_ ? 0 : skipped)) % nt_;
        if (!mayFail_ && frame.frame != body) note("the body jumps", frame.utterance);
        // Where renders may fail, a ramp's may as well.
        if (ramps_ && !mayFail_ && frame.kind != 2) {
            note("the mouth does not close", frame.utterance);
        }
        frame_ = frame.frame;
        kind_ = frame.kind;
        ramps_ = cut_ = false;
        if (frame.sound_samples != samples_) note("length of the sound", frame.utterance);
        if (frame.kind != 1) {
            if (frame.first_sample != -1) note("a place without speech", frame.utterance);
            if (frame.sound && !zeros(frame.sound)) note("sound without speech", frame.utterance);
            return;
        }
        const auto found = utterances_.find(frame.utterance);
        if (found == utterances_.end()) return note("speech of no utterance", frame.utterance);
        if (frame.utterance <= dead_) note("speech after the interrupt", frame.utterance);
        show(frame, found->second);
        ++speech;
    }

    void told(const zorv_utt_event& event) {
        const auto found = utterances_.find(event.utterance);
        if (found == utterances_.end()) return note("an event of no utterance", event.utterance);
        Utterance& utterance = found->second;
        const auto size = static_cast<std::int64_t>(utterance.sound.size());
        if (event.missed != 0) note("events are missing", event.utterance);
        if (event.type == ZORV_UTT_STARTED) {
            if (utterance.started || event.utterance != over + 1) {
                note("a start out of turn", event.utterance);
            }
            utterance.started = true;
            return;
        }
        if (event.utterance != ++over) note("an end out of turn", event.utterance);
        if (utterance.started != (utterance.end > 0)) note("a start that was not", event.utterance);
        if (event.samples != std::min(utterance.end, size)) note("position", event.utterance);
        if (event.pts != utterance.pts) note("time of the end", event.utterance);
        std::int64_t holes = utterance.holes;
        if (event.type == ZORV_UTT_FINISHED) {
            ++finished;
            holes += (size + samples_ - 1) / samples_ - utterance.end / samples_;
            if (event.reason != ZORV_REASON_END && event.reason != ZORV_REASON_SILENCE) {
                note("reason of a finish", event.utterance);
            }
            if (holes > 0 && !skips_ && !mayFail_) note("unfinished", event.utterance);
        } else if (event.type == ZORV_UTT_INTERRUPTED) {
            ++interrupts;
            if (event.utterance > dead_) note("interrupted by nobody", event.utterance);
        } else {
            ++failed;
            if (event.type != ZORV_UTT_FAILED || !mayFail_) note("failed", event.utterance);
        }
        if (static_cast<std::int64_t>(event.frames_left_out) != holes) {
            note("number of frames left out", event.utterance);
        }
        utterances_.erase(found);
    }

    /// Every utterance has come to its end.
    bool settled() const { return over == begun_; }
    std::uint64_t begun() const { return begun_; }

    std::string fault;  ///< the first one; "" while all is well
    std::uint64_t over = 0, finished = 0, interrupts = 0, failed = 0, speech = 0, gaps = 0;

  private:
    struct Utterance {
        std::vector<std::int16_t> sound;
        std::int64_t end = 0;  ///< of the last piece that came back
        std::int64_t holes = 0;
        std::int64_t pts = -1;
        bool started = false;
    };

    void note(const char* what, std::uint64_t number) {
        if (fault.empty()) fault = std::string(what) + ", utterance " + std::to_string(number);
    }
    bool zeros(const std::int16_t* sound) const {
        return std::all_of(sound, sound + samples_,
                           [](std::int16_t sample) { return sample == 0; });
    }
    void show(const zorv_utt_frame& frame, Utterance& utterance) {
        const std::int64_t hole = frame.first_sample - utterance.end;
        if (hole < 0 || hole % samples_ != 0) return note("pieces overlap", frame.utterance);
        if ((hole > 0) != ((frame.flags & ZORV_FRAME_GAP) != 0)) note("gap", frame.utterance);
        if ((utterance.end == 0) != ((frame.flags & ZORV_FRAME_FIRST) != 0) && utterance.pts < 0) {
            note("first", frame.utterance);
        }
        utterance.holes += hole / samples_;
        gaps += hole > 0;
        utterance.end = frame.first_sample + samples_;
        utterance.pts = frame.pts;
        const auto size = static_cast<std::int64_t>(utterance.sound.size());
        for (std::int64_t i = 0; frame.sound && i < samples_; ++i) {
            const std::int64_t at = frame.first_sample + i;
            const std::int16_t expected =
                at < size ? utterance.sound[static_cast<std::size_t>(at)] : std::int16_t{0};
            if (frame.sound[i] != expected) return note("other sound", frame.utterance);
        }
        if (frame.first_sample >= size) note("speech behind the end", frame.utterance);
    }

    const std::int64_t samples_;
    const bool skips_;
    const int nt_;
    bool mayFail_ = false;
    std::map<std::uint64_t, Utterance> utterances_;  ///< that are not over
    std::uint64_t begun_ = 0;
    std::uint64_t dead_ = 0;
    std::int64_t pts_ = -1;
    int frame_ = -1, kind_ = 0;  ///< of the last frame
    bool ramps_ = false;         ///< the next frame is a ramp's
    bool cut_ = false;           ///< an interrupt has come since
};

}  // namespace zorv::test
