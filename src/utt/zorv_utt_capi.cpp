// The C functions of the utterance engine.
#include <cstddef>
#include <cstdint>

#include "common/error.h"
#include "telemetry/telemetry.h"
#include "utt/zorv_utt.h"
#include "zorv_core.h"

namespace {

using Errors = zorv::LastError<zorv_utt>;

/// A function that reports nothing: a failure is only told.
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
        utt->push(pcm, static_cast<std::size_t>(n));
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

const char* zorv_utt_last_error(void) {
    return Errors::get();
}

}  // extern "C"
