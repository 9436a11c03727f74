#include "session.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>

#include "workload.h"

namespace zorv::driver {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kFrameTime{40}, kPieceTime{20}, kLeadIn{500};
constexpr std::chrono::microseconds kFinePoll{100};
constexpr auto kPatience = std::chrono::seconds(60);  // without any progress
constexpr int kIdleAtEnd = 25;                        // frames

/// What the two threads share.
struct Stage {
    Stage(const LiveEngine& live, size_t lines) : engine(live), firstFinishedMs(lines) {}

    double nowMs() const {
        return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    }
    zorv_utt_stats stats() const {
        zorv_utt_stats all = {};
        zorv_utt_get_stats(engine.utt(), &all);
        return all;
    }
    uint64_t failures() const { return zorv_utt_failure(engine.utt(), nullptr, 0); }
    /// Both threads call it all the time: one that fails ends the other.
    void check() const {
        engine.check();
        if (broken) throw std::runtime_error("the other thread stopped");
    }

    const LiveEngine& engine;
    const Clock::time_point start = Clock::now();
    std::atomic<int> line{-1};  // spoken last
    std::atomic<bool> said{false};
    std::atomic<bool> broken{false};
    std::vector<double> firstFinishedMs;  // the viewer's, per line; 0 for none
};

/// The voice agent: pushes what a microphone or a synthesiser would hand it, when it would.
class Speaker {
  public:
    Speaker(Stage& stage, const std::vector<int16_t>& sound)
        : stage_(stage),
          sound_(sound),
          pieceSamples_(static_cast<size_t>(stage.engine.frameSamples()) / 2) {}

    std::vector<LineLog> run(const std::vector<Line>& lines) {
        std::vector<LineLog> logs;
        sleepUntil(stage_.start + kLeadIn);
        for (const Line& line : lines) {
            logs.push_back(say(line));
            const bool last = &line == &lines.back(), interrupted = logs.back().interrupted;
            if (last || !interrupted) waitForRest(interrupted);
            if (!last) sleepUntil(Clock::now() + seconds(line.pauseSeconds));
        }
        stage_.said = true;
        return logs;
    }

  private:
    static Clock::duration seconds(double value) {
        return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(value));
    }

    void sleepUntil(Clock::time_point time) const {
        for (stage_.check(); Clock::now() < time; stage_.check()) {
            std::this_thread::sleep_until(std::min(time, Clock::now() + milliseconds(100)));
        }
    }

    LineLog say(const Line& line) {
        started_ = stage_.stats().utterances_started;
        failures_ = stage_.failures();
        LineLog log;
        log.pushedMs.reserve(line.samples / pieceSamples_ + 1);
        ++stage_.line;
        const Clock::time_point begin = Clock::now();
        log.beginMs = stage_.nowMs();
        const Clock::time_point end = line.interruptSeconds < 0
                                          ? Clock::time_point::max()
                                          : begin + seconds(line.interruptSeconds);
        for (size_t piece = 0; log.samples < line.samples; ++piece) {
            const Clock::time_point due = begin + (line.atOnce ? 0 : piece) * kPieceTime;
            if (due >= end) break;
            sleepUntil(due);
            push(line, log);
        }
        if (line.interruptSeconds < 0) {
            zorv_utt_end_utterance(stage_.engine.utt());
        } else {
            sleepUntil(end);
            interrupt(log);
        }
        return log;
    }

    void push(const Line& line, LineLog& log) const {
        const size_t count = std::min(pieceSamples_, line.samples - log.samples);
        const int16_t* from = sound_.data() + line.begin + log.samples;
        if (!zorv_utt_push_audio(stage_.engine.utt(), from, static_cast<int>(count))) {
            throw std::runtime_error(std::string("the engine took no more sound: ") +
                                     zorv_utt_last_error() + "; use a shorter clip");
        }
        log.samples += count;
        log.pushedMs.push_back(static_cast<float>(stage_.nowMs() - log.beginMs));
    }

    /// No frame of the line can be pulled once the call has returned: the next one there is shows
    ///  a ramp or an idle frame. It may be pulled between two looks, so pulls count too.
    void interrupt(LineLog& log) const {
        const double asked = stage_.nowMs();
        zorv_utt_interrupt(stage_.engine.utt());
        log.interrupted = true;
        log.interruptedMs = stage_.nowMs();
        const uint64_t pulled = stage_.stats().frames_pulled;
        while (zorv_utt_frames_available(stage_.engine.utt()) == 0 &&
               stage_.stats().frames_pulled == pulled) {
            stage_.check();
            std::this_thread::sleep_for(kFinePoll);
        }
        log.interruptToFrameMs = stage_.nowMs() - asked;
    }

    /// Until the line that was said to its end has been shown or given up, or the interrupted one
    ///  has been left.
    void waitForRest(bool interrupted) const {
        Clock::time_point patience = Clock::now() + kPatience;
        zorv_utt_stats last = {};
        for (;;) {
            const zorv_utt_stats now = stage_.stats();
            const bool heard =
                interrupted || now.utterances_started > started_ || stage_.failures() > failures_;
            if (heard && now.state == 0) return;
            if (now.state != last.state || now.speech_frames_pulled != last.speech_frames_pulled) {
                patience = Clock::now() + kPatience;
            }
            if (Clock::now() > patience) {
                throw std::runtime_error("the engine has stopped speaking (state " +
                                         std::to_string(now.state) + "); close other programs");
            }
            last = now;
            sleepUntil(Clock::now() + milliseconds(10));
        }
    }

    Stage& stage_;
    const std::vector<int16_t>& sound_;
    const size_t pieceSamples_;
    uint64_t started_ = 0, failures_ = 0;  // before the line
};

/// Pulls on an absolute schedule, whatever happens in between.
class Viewer {
  public:
    Viewer(Stage& stage, const OnFrame& onFrame)
        : stage_(stage),
          onFrame_(onFrame),
          frame_(stage.engine.frameBytes()),
          sound_(static_cast<size_t>(stage.engine.frameSamples())) {}

    std::vector<Tick> run() {
        std::vector<Tick> ticks;
        int idle = 0, without = 0;
        for (int64_t number = 0; idle < kIdleAtEnd; ++number) {
            const Clock::time_point due = stage_.start + number * kFrameTime;
            std::this_thread::sleep_until(due);
            stage_.check();
            ticks.push_back(pull(due));
            const Tick& tick = ticks.back();
            idle = stage_.said && tick.kind == 0 ? idle + 1 : 0;
            without = tick.kind == Tick::kLate ? without + 1 : 0;
            if (without * kFrameTime > kPatience) {
                throw std::runtime_error("the engine has stopped; run it again");
            }
        }
        return ticks;
    }

  private:
    Tick pull(Clock::time_point due) {
        Tick tick;
        tick.beginMs = stage_.nowMs();
        // Before the pull: a frame of an old line may be in hand when the next line begins.
        tick.line = stage_.line;
        zorv_utt_frame info;
        const bool got = stage_.engine.pull(frame_, sound_, info);
        tick.pullMs = static_cast<float>(stage_.nowMs() - tick.beginMs);
        tick.delayMs = std::chrono::duration<float, std::milli>(Clock::now() - due).count();
        if (got) {
            tick.kind = static_cast<int8_t>(info.kind);
            tick.speechSequence = info.speech_sequence;
            ++frames_;
            if (info.speech_sequence == 0 && tick.line >= 0) {
                stage_.firstFinishedMs[static_cast<size_t>(tick.line)] =
                    stage_.stats().first_frame_latency_ms;
            }
            if (onFrame_) onFrame_(frame_, sound_);
        }
        tick.frame = frames_ - 1;
        return tick;
    }

    Stage& stage_;
    const OnFrame& onFrame_;
    std::vector<uint8_t> frame_;
    std::vector<int16_t> sound_;
    int64_t frames_ = 0;
};

}  // namespace

SessionLog play(const LiveEngine& engine, const std::vector<int16_t>& sound,
                const std::vector<Line>& lines, const OnFrame& onFrame) {
    SessionLog log;
    const double cpu = cpuSeconds();
    Stage stage(engine, lines.size());
    // The first failure is the one to tell; the other thread's only follows from it.
    const auto guard = [&stage](auto work) {
        return [&stage, work] {
            try {
                return work();
            } catch (...) {
                if (stage.broken.exchange(true)) return decltype(work())();
                throw;
            }
        };
    };
    std::future<std::vector<LineLog>> speaker =
        std::async(std::launch::async, guard([&] { return Speaker(stage, sound).run(lines); }));
    std::future<std::vector<Tick>> viewer =
        std::async(std::launch::async, guard([&] { return Viewer(stage, onFrame).run(); }));
    speaker.wait();
    log.ticks = viewer.get();
    log.lines = speaker.get();
    log.cpuSeconds = cpuSeconds() - cpu;
    for (size_t i = 0; i < log.lines.size(); ++i) {
        if (stage.firstFinishedMs[i] > 0) {
            log.lines[i].firstFinishedMs = stage.firstFinishedMs[i];
        }
    }
    log.stats = stage.stats();
    log.rate = engine.rate();
    zorv_utt_latency_info latency = {};
    latency.struct_size = sizeof latency;
    if (zorv_utt_latency(engine.utt(), &latency) == 1) {
        log.lookAhead = latency.look_ahead_samples;
        log.leftOutLate = latency.frames_left_out_late;
    }
    char text[1024];
    log.failures = zorv_utt_failure(engine.utt(), text, sizeof text);
    log.failure = text;
    return log;
}

}  // namespace zorv::driver
