// Audio of any values in any pieces into the motion engine, asked for frames in between: they are
// the frames of one push. Where eager passes hand frames out early, their number and places are.
#include <zorv_core.h>

#include <utility>

#include "stream_program.h"
#include "support/test_motion.h"

namespace zorv::fuzz {
namespace {

class Engine {
  public:
    Engine() : motion_(zorv_motion_create(files_.dir().c_str(), 1, nullptr)) {
        require(motion_ != nullptr, zorv_motion_last_error());
    }
    ~Engine() { zorv_motion_destroy(motion_); }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    void play(const StreamProgram& program) {
        zorv_motion_set_eager(motion_, 0);
        eager_ = 0;
        reset(program.start);
        for (const Step& step : program.steps) run(step);
        const Frames cut = finish(7);

        zorv_motion_set_eager(motion_, 0);
        const std::vector<float> whole = audio_;
        const bool early = early_;
        reset(start_);
        push(whole);
        const Frames expected = finish(1 << 10);
        require(cut.index == expected.index, "frames lie on the same target frames");
        require(sameFloats(cut.source, expected.source), "source keypoints are the same");
        require(early || sameFloats(cut.driving, expected.driving),
                "driving keypoints do not depend on the cuts");
    }

  private:
    void run(const Step& step) {
        switch (step.kind) {
            case Step::kPush:
                push(step.audio);
                break;
            case Step::kAvail:
                avail();
                break;
            case Step::kPull:
                pull(step.value);
                break;
            case Step::kEager:
                eager_ = step.value;
                zorv_motion_set_eager(motion_, eager_);
                break;
            case Step::kReset:
                reset(step.start);
                break;
            default:
                break;
        }
    }

    void reset(const Start& start) {
        zorv_motion_reset(motion_, start.frame, start.direction, start.loop);
        require(zorv_motion_total(motion_) == -1, "a new stream is open");
        start_ = start;
        frames_ = {};
        audio_.clear();
        early_ = false;
    }

    void push(const std::vector<float>& audio) {
        // A copy of its own size, so that reading beyond it shows.
        const std::vector<float> piece = audio;
        const float none = 0;
        const float* samples = piece.empty() ? &none : piece.data();
        require(zorv_motion_push(motion_, samples, static_cast<int>(piece.size())) == 1,
                "an open stream takes audio");
        audio_.insert(audio_.end(), piece.begin(), piece.end());
    }

    int avail() {
        const int ready = zorv_motion_avail(motion_);
        require(ready >= 0 && !*zorv_motion_last_error(), "frames can be counted");
        return ready;
    }

    int pull(int max) {
        const int ready = avail();
        const Frames::Room room = frames_.room(max);
        const int count = zorv_motion_pull(motion_, room.index, room.source, room.driving, max);
        frames_.keep(count);
        require(count == std::min(ready, max), "as many frames as were counted");
        require((max > 0) == !*zorv_motion_last_error(), "only bad arguments are refused");
        if (count > 0 && eager_ != 0 && zorv_motion_total(motion_) < 0) early_ = true;
        return count;
    }

    /// All frames of the stream, the rest of them `step` at a time.
    Frames finish(int step) {
        zorv_motion_finish(motion_);
        const auto total = (audio_.size() + kFrameSamples - 1) / kFrameSamples;
        require(zorv_motion_total(motion_) == static_cast<int>(total), "a frame per 640 samples");
        const float none = 0;
        require(zorv_motion_push(motion_, &none, 0) == 0, "a finished stream takes no audio");
        while (pull(step) > 0) {
        }
        require(frames_.size() == total, "every frame comes");
        return std::move(frames_);
    }

    test::TestMotion files_;
    zorv_motion* motion_;
    // The stream so far.
    Start start_;
    Frames frames_;
    std::vector<float> audio_;
    int eager_ = 0;
    bool early_ = false;  ///< a frame was pulled that later audio might have changed
};

}  // namespace
}  // namespace zorv::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace zorv::fuzz;
    static Engine engine;
    engine.play(readProgram({data, size}, {.samples = 240 * kFrameSamples, .polls = 200}));
    return 0;
}
