// The C functions of the utterance engine.
#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include "common/error.h"
#include "telemetry/telemetry.h"
#include "utt/host_record.h"
#include "utt/zorv_utt.h"
#include "zorv_core.h"

namespace {

using Errors = zorv::LastError<zorv_utt>;

void refuseNull(bool given) {
    if (!given) throw std::invalid_argument("bad args");
}

template <class Body>
int setting(const char* function, const zorv_utt* utt, Body&& body) {
    Errors::clear();
    return zorv::guarded<Errors>(function, 0, [&] {
        refuseNull(utt);
        body();
        return 1;
    });
}

/// For functions that return nothing: a failure shows in the last error alone.
template <class Body>
void guardedQuietly(const char* function, Body&& body) {
    zorv::guarded<Errors>(function, 0, [&] {
        body();
        return 0;
    });
}

}  // namespace

extern "C" {

zorv_utt* zorv_utt_create(zorv_ctx* ctx, const zorv_utt_opts* opts) {
    Errors::clear();
    if (!ctx || !opts) {
        Errors::set("zorv_utt_create: NULL ctx/opts");
        return nullptr;
    }
    return zorv::guarded<Errors, zorv_utt*>("zorv_utt_create", nullptr, [&] {
        return zorv::telemetry::opening("utt", [&] { return new zorv_utt(*ctx, *opts); });
    });
}

zorv_utt* zorv_utt_open(zorv_ctx* ctx, const char* motion_dir) {
    zorv_utt_opts opts = {};
    opts.motion_dir = motion_dir;
    return zorv_utt_create(ctx, &opts);
}

void zorv_utt_destroy(zorv_utt* utt) {
    Errors::clear();
    guardedQuietly("zorv_utt_destroy", [&] {
        zorv::telemetry::closing("utt", utt);
        delete utt;
    });
}

int zorv_utt_ready(zorv_utt* utt) {
    Errors::clear();
    if (!utt) return -1;
    return zorv::guarded<Errors>("zorv_utt_ready", -1, [&] {
        zorv::FailureText text;
        const int ready = utt->ready(text);
        if (ready < 0) Errors::repeat(text.get());
        return ready;
    });
}

int zorv_utt_push_audio(zorv_utt* utt, const int16_t* pcm, int n) {
    Errors::clear();
    if (!utt || !pcm || n < 0) {
        Errors::set("zorv_utt_push_audio: bad args");
        return 0;
    }
    return zorv::guarded<Errors>("zorv_utt_push_audio", 0, [&] {
        zorv::FailureText unspoken;  // what cannot be spoken is discarded
        utt->push(pcm, static_cast<std::size_t>(n), unspoken);
        return 1;
    });
}

void zorv_utt_end_utterance(zorv_utt* utt) {
    Errors::clear();
    if (utt) guardedQuietly("zorv_utt_end_utterance", [&] { utt->endUtterance(); });
}

void zorv_utt_interrupt(zorv_utt* utt) {
    Errors::clear();
    if (utt) guardedQuietly("zorv_utt_interrupt", [&] { utt->interrupt(); });
}

int zorv_utt_frames_available(zorv_utt* utt) {
    Errors::clear();
    if (!utt) return 0;
    return zorv::guarded<Errors>("zorv_utt_frames_available", 0, [&] { return utt->available(); });
}

int zorv_utt_pull_frame(zorv_utt* utt, uint8_t* buf, size_t cap, zorv_utt_frame_info* info) {
    Errors::clear();
    if (!utt || !buf) {
        Errors::set("zorv_utt_pull_frame: bad args");
        return 0;
    }
    return zorv::guarded<Errors>("zorv_utt_pull_frame", 0, [&] {
        const zorv_utt::Pull result = utt->pull(buf, cap, info);
        if (result == zorv_utt::Pull::kTooSmall) {
            Errors::set("zorv_utt_pull_frame: buffer too small");
        }
        return result == zorv_utt::Pull::kDone ? 1 : 0;
    });
}

void zorv_utt_get_stats(zorv_utt* utt, zorv_utt_stats* stats) {
    Errors::clear();
    if (utt && stats) guardedQuietly("zorv_utt_get_stats", [&] { *stats = utt->stats(); });
}

uint64_t zorv_utt_failure(zorv_utt* utt, char* text, size_t capacity) {
    Errors::clear();
    if (utt) {
        return zorv::guarded<Errors, std::uint64_t>("zorv_utt_failure", 0,
                                                    [&] { return utt->failure(text, capacity); });
    }
    if (text && capacity > 0) *text = 0;
    return 0;
}

int zorv_utt_set_input(zorv_utt* utt, int rate) {
    return setting("zorv_utt_set_input", utt, [&] { utt->setInput(rate); });
}

int zorv_utt_set_pixels(zorv_utt* utt, int pixels) {
    return setting("zorv_utt_set_pixels", utt, [&] { utt->setPixels(pixels); });
}

int zorv_utt_set_matrix(zorv_utt* utt, int matrix) {
    return setting("zorv_utt_set_matrix", utt, [&] { utt->setMatrix(matrix); });
}

int zorv_utt_set_idle_ahead(zorv_utt* utt, int frames) {
    return setting("zorv_utt_set_idle_ahead", utt, [&] { utt->setIdleAhead(frames); });
}

int zorv_utt_set_late(zorv_utt* utt, int policy) {
    return setting("zorv_utt_set_late", utt, [&] { utt->setLate(policy); });
}

uint64_t zorv_utt_push(zorv_utt* utt, const int16_t* pcm, int n) {
    Errors::clear();
    if (!utt || !pcm || n < 0) {
        Errors::set("zorv_utt_push: bad args");
        return 0;
    }
    return zorv::guarded<Errors, std::uint64_t>("zorv_utt_push", 0, [&] {
        zorv::FailureText fatal;
        const std::uint64_t number = utt->push(pcm, static_cast<std::size_t>(n), fatal);
        if (!fatal.empty()) Errors::repeat(fatal.get());
        return number;
    });
}

int zorv_utt_pull(zorv_utt* utt, zorv_utt_frame* frame) {
    Errors::clear();
    return zorv::guarded<Errors>("zorv_utt_pull", -1, [&] {
        refuseNull(utt && frame);
        zorv::HostRecord<zorv_utt_frame> record(
            *frame,
            {ZORV_MEMBER(zorv_utt_frame, struct_size), ZORV_MEMBER(zorv_utt_frame, plane),
             ZORV_MEMBER(zorv_utt_frame, stride), ZORV_MEMBER(zorv_utt_frame, sound),
             ZORV_MEMBER(zorv_utt_frame, sound_capacity),
             ZORV_MEMBER(zorv_utt_frame, sound_samples), ZORV_MEMBER(zorv_utt_frame, sequence),
             ZORV_MEMBER(zorv_utt_frame, kind), ZORV_MEMBER(zorv_utt_frame, frame),
             ZORV_MEMBER(zorv_utt_frame, speech_sequence), ZORV_MEMBER(zorv_utt_frame, utterance),
             ZORV_MEMBER(zorv_utt_frame, first_sample), ZORV_MEMBER(zorv_utt_frame, pts),
             ZORV_MEMBER(zorv_utt_frame, flags)});
        if (!utt->pull(record.value)) return 0;
        record.giveBack();
        return 1;
    });
}

int zorv_utt_next_event(zorv_utt* utt, zorv_utt_event* event) {
    Errors::clear();
    return zorv::guarded<Errors>("zorv_utt_next_event", -1, [&] {
        refuseNull(utt && event);
        zorv::HostRecord<zorv_utt_event> record(
            *event,
            {ZORV_MEMBER(zorv_utt_event, struct_size), ZORV_MEMBER(zorv_utt_event, type),
             ZORV_MEMBER(zorv_utt_event, reason), ZORV_MEMBER(zorv_utt_event, utterance),
             ZORV_MEMBER(zorv_utt_event, samples), ZORV_MEMBER(zorv_utt_event, pts),
             ZORV_MEMBER(zorv_utt_event, frames_left_out), ZORV_MEMBER(zorv_utt_event, missed)});
        if (!utt->nextEvent(record.value)) return 0;
        record.giveBack();
        return 1;
    });
}

int zorv_utt_wait(zorv_utt* utt, int mask, int timeout_ms) {
    Errors::clear();
    return zorv::guarded<Errors>("zorv_utt_wait", -1, [&] {
        refuseNull(utt);
        zorv::FailureText fatal;
        const int had = utt->wait(mask, timeout_ms, fatal);
        if (!fatal.empty()) Errors::repeat(fatal.get());
        return had;
    });
}

int zorv_utt_fd(zorv_utt* utt, int mask) {
    Errors::clear();
    return zorv::guarded<Errors>("zorv_utt_fd", -1, [&] {
        refuseNull(utt);
        return utt->descriptor(mask);
    });
}

int zorv_utt_latency(zorv_utt* utt, zorv_utt_latency_info* info) {
    Errors::clear();
    return zorv::guarded<Errors>("zorv_utt_latency", 0, [&] {
        refuseNull(utt && info);
        zorv::HostRecord<zorv_utt_latency_info> record(
            *info, {ZORV_MEMBER(zorv_utt_latency_info, struct_size),
                    ZORV_MEMBER(zorv_utt_latency_info, look_ahead_samples),
                    ZORV_MEMBER(zorv_utt_latency_info, idle_ahead),
                    ZORV_MEMBER(zorv_utt_latency_info, render_ms),
                    ZORV_MEMBER(zorv_utt_latency_info, frames_left_out_late),
                    ZORV_MEMBER(zorv_utt_latency_info, frames_left_out_failed),
                    ZORV_MEMBER(zorv_utt_latency_info, late_slots),
                    ZORV_MEMBER(zorv_utt_latency_info, sound_bytes)});
        utt->latency(record.value);
        record.giveBack();
        return 1;
    });
}

const char* zorv_utt_last_error(void) {
    return Errors::get();
}

}  // extern "C"
