// The public references, each behind its own guard.
#include "aec_backends.h"

#include <cstring>

#ifdef AEC_HAVE_SPEEXDSP
#include <speex/speex_echo.h>
#include <speex/speex_preprocess.h>
#endif
#ifdef AEC_HAVE_AEC3
#include <webrtc_aec3_shim.h>
#endif
#ifdef AEC_HAVE_WEBRTC
#include <webrtc/modules/audio_processing/include/audio_processing.h>
#include <webrtc/modules/interface/module_common_types.h>
#endif

aec_backend aec_backend_ours();

namespace {
#ifdef AEC_HAVE_SPEEXDSP
// 480-sample frames, a 280 ms filter (the tail ours covers), its
// preprocessor on the output for residual echo and noise.
struct spx {
    SpeexEchoState *echo;
    SpeexPreprocessState *pre;
};

void *spx_create()
{
    auto *s = new spx{speex_echo_state_init(480, 13440), nullptr};
    int rate = 48000;
    speex_echo_ctl(s->echo, SPEEX_ECHO_SET_SAMPLING_RATE, &rate);
    s->pre = speex_preprocess_state_init(480, rate);
    speex_preprocess_ctl(s->pre, SPEEX_PREPROCESS_SET_ECHO_STATE, s->echo);
    return s;
}

void spx_process(void *h, const int16_t *spk, const int16_t *mic, int16_t *out)
{
    auto *s = static_cast<spx *>(h);
    speex_echo_cancellation(s->echo, mic, spk, out);
    speex_preprocess_run(s->pre, out);
}

void spx_destroy(void *h)
{
    auto *s = static_cast<spx *>(h);
    speex_preprocess_state_destroy(s->pre);
    speex_echo_state_destroy(s->echo);
    delete s;
}
#endif

#ifdef AEC_HAVE_WEBRTC
// Its echo canceller (default suppression), with or without its noise
// suppression, 10 ms frames at 48 kHz, told the true bulk delay.
struct wrtc {
    webrtc::AudioProcessing *apm;
    webrtc::AudioFrame far, near;
};

void *wrtc_create(bool ns)
{
    auto *w = new wrtc{};
    w->apm = webrtc::AudioProcessing::Create();
    w->apm->echo_cancellation()->enable_drift_compensation(false);
    w->apm->echo_cancellation()->Enable(true);
    w->apm->noise_suppression()->Enable(ns);
    return w;
}
void *wrtc_create_ns() { return wrtc_create(true); }
void *wrtc_create_plain() { return wrtc_create(false); }

void fill(webrtc::AudioFrame &f, const int16_t *x)
{
    f.UpdateFrame(0, 0, x, 480, 48000, webrtc::AudioFrame::kNormalSpeech, webrtc::AudioFrame::kVadUnknown, 1);
}

void wrtc_process(void *h, const int16_t *spk, const int16_t *mic, int16_t *out)
{
    auto *w = static_cast<wrtc *>(h);
    fill(w->far, spk);
    w->apm->ProcessReverseStream(&w->far);
    fill(w->near, mic);
    w->apm->set_stream_delay_ms(10);
    w->apm->ProcessStream(&w->near);
    std::memcpy(out, w->near.data_, 480 * sizeof(int16_t));
}

void wrtc_destroy(void *h)
{
    auto *w = static_cast<wrtc *>(h);
    delete w->apm;
    delete w;
}
#endif

#ifdef AEC_HAVE_AEC3
// AEC3 with noise suppression off; it estimates the delay itself.
void *aec3_create() { return webrtc_aec3_create(-1); }
void aec3_process(void *h, const int16_t *spk, const int16_t *mic, int16_t *out)
{
    if (webrtc_aec3_process(static_cast<WebrtcAec3 *>(h), spk, mic, out, 0) != 0)
        std::memset(out, 0, 480 * sizeof(int16_t));
}
void aec3_destroy(void *h) { webrtc_aec3_destroy(static_cast<WebrtcAec3 *>(h)); }
#endif
} // namespace

const char *aec_missing_references()
{
    return ""
#ifndef AEC_HAVE_SPEEXDSP
           " speexdsp (libspeexdsp-dev not found)"
#endif
#ifndef AEC_HAVE_WEBRTC
           " webrtc-ap 0.3 (libwebrtc-audio-processing-dev not found)"
#endif
#ifndef AEC_HAVE_AEC3
           " AEC3 (prebuilt shim not found: set PELOD_AEC3_DIR)"
#endif
        ;
}

std::vector<aec_backend> aec_backends()
{
    std::vector<aec_backend> b{aec_backend_ours()};
#ifdef AEC_HAVE_SPEEXDSP
    b.push_back({"speexdsp+pre", spx_create, spx_process, spx_destroy});
#endif
#ifdef AEC_HAVE_WEBRTC
    // Its noise suppression lowers the output in far-end single talk too,
    // noise and all: the row without it shows the echo canceller alone.
    b.push_back({"wap 0.3, NS on", wrtc_create_ns, wrtc_process, wrtc_destroy});
    b.push_back({"wap 0.3, NS off", wrtc_create_plain, wrtc_process, wrtc_destroy});
#endif
#ifdef AEC_HAVE_AEC3
    b.push_back({"AEC3 (wap 2.1)", aec3_create, aec3_process, aec3_destroy});
#endif
    return b;
}
