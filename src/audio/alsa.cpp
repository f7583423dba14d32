#include "audio/alsa.h"

#include "daemon/rtlog.h"

#include <alsa/asoundlib.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

unsigned long alsa_ply_or, alsa_ply_rewrite;
unsigned long alsa_cap_err, alsa_cap_xrun, alsa_cap_samples, alsa_cap_low, alsa_cap_reread;
unsigned long alsa_loop_cut;
int alsa_debug;
int alsa_cap_peak;

static const char *const alsa_dev = "hw:0,0";
static constexpr int ALSA_BLOCK_VALUES = 2 * ALSA_BLOCK_FRAMES;

static snd_pcm_t *playback_handle;
static snd_pcm_t *capture_handle;
// Set once a stream is fully configured: a stream left open by a failed
// set-up is never offered a block.
static bool playback_ready, capture_ready;
// Suspended capture: calls left until the next resume attempt, and the
// attempts that answered -EAGAIN so far.
static int cap_resume_wait, cap_resume_tries;

// Frame counts from the library are compared unsigned: an error code
// counts as a very large number.
static snd_pcm_uframes_t as_frames(snd_pcm_sframes_t n) noexcept { return snd_pcm_uframes_t(n); }

static int set_hwparams(snd_pcm_t *pcm, snd_pcm_hw_params_t *params, snd_pcm_format_t format)
{
    int err = snd_pcm_hw_params_any(pcm, params);
    if (err < 0) {
        fprintf(stderr, "cannot initialize hardware parameter structure (%s)\n", snd_strerror(err));
        return err;
    }
    if ((err = snd_pcm_hw_params_set_access(pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED)) < 0) {
        fprintf(stderr, "cannot set access type (%s)\n", snd_strerror(err));
        return err;
    }
    if ((err = snd_pcm_hw_params_set_format(pcm, params, format)) < 0) {
        fprintf(stderr, "cannot set sample format (%s)\n", snd_strerror(err));
        return err;
    }
    unsigned int rate = 48000;
    if ((err = snd_pcm_hw_params_set_rate_near(pcm, params, &rate, nullptr)) < 0) {
        fprintf(stderr, "cannot set sample rate (%s)\n", snd_strerror(err));
        return err;
    }
    if ((err = snd_pcm_hw_params_set_channels(pcm, params, 2)) < 0) {
        fprintf(stderr, "cannot set channel count (%s)\n", snd_strerror(err));
        return err;
    }
    snd_pcm_uframes_t frames = ALSA_BUFFER_FRAMES;
    if (snd_pcm_hw_params_set_buffer_size_near(pcm, params, &frames) < 0) {
        // kept as the field units know it: the text of code 1 and a positive
        // result, so the caller goes on with parameters never installed
        printf("Unable to set buffer size %li %s\n", long(frames), snd_strerror(1));
        return 1;
    }
    if ((err = snd_pcm_hw_params(pcm, params)) < 0) {
        fprintf(stderr, "cannot set parameters (%s)\n", snd_strerror(err));
        return err;
    }
    return 0;
}

static int set_swparams(snd_pcm_t *pcm, snd_pcm_sw_params_t *params)
{
    int err = snd_pcm_sw_params_current(pcm, params);
    if (err < 0) {
        printf("Unable to determine current swparams: %s\n", snd_strerror(err));
        return err;
    }
    if ((err = snd_pcm_sw_params_set_start_threshold(pcm, params, ALSA_THRESHOLD_FRAMES)) < 0) {
        printf("Unable to set start threshold mode: %s\n", snd_strerror(err));
        return err;
    }
    snd_pcm_uframes_t boundary = 0;
    if ((err = snd_pcm_sw_params_get_boundary(params, &boundary)) < 0) {
        printf("Unable to get boundary for playback: %s\n", snd_strerror(err));
        return err;
    }
    // an xrun never stops the stream
    if ((err = snd_pcm_sw_params_set_stop_threshold(pcm, params, boundary)) < 0) {
        printf("Unable to set stop threshold mode: %s\n", snd_strerror(err));
        return err;
    }
    if ((err = snd_pcm_sw_params_set_avail_min(pcm, params, ALSA_BLOCK_FRAMES)) < 0) {
        printf("Unable to set avail min for %s\n", snd_strerror(err));
        return err;
    }
    if ((err = snd_pcm_sw_params(pcm, params)) < 0) {
        printf("Unable to set sw params: %s\n", snd_strerror(err));
        return err;
    }
    return 0;
}

static int open_playback(snd_pcm_hw_params_t *hw, snd_pcm_sw_params_t *sw)
{
    int err = snd_pcm_open(&playback_handle, alsa_dev, SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
    if (err < 0) {
        playback_handle = nullptr;
        fprintf(stderr, "Cannot open playback device %s (%s)\n", alsa_dev, snd_strerror(err));
        return -1;
    }
    // the S16 pass stays as a first probe of the card; the stream ends in S24
    if ((err = set_hwparams(playback_handle, hw, SND_PCM_FORMAT_S16_LE)) < 0) {
        fprintf(stderr, "Setting of playback hwparams S16 failed: %s\n", snd_strerror(err));
        return -1;
    }
    if ((err = set_hwparams(playback_handle, hw, SND_PCM_FORMAT_S24_LE)) < 0) {
        fprintf(stderr, "Setting of playback hwparams S24 failed: %s\n", snd_strerror(err));
        return -1;
    }
    if ((err = set_swparams(playback_handle, sw)) < 0) {
        printf("Setting of swparams playback failed: %s\n", snd_strerror(err));
        return -1;
    }
    playback_ready = true;
    return 0;
}

static int open_capture(snd_pcm_hw_params_t *hw, snd_pcm_sw_params_t *sw)
{
    int err = snd_pcm_open(&capture_handle, alsa_dev, SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK);
    if (err < 0) {
        capture_handle = nullptr;
        fprintf(stderr, "Cannot open capture device %s (%s)\n", alsa_dev, snd_strerror(err));
        return -1;
    }
    if ((err = set_hwparams(capture_handle, hw, SND_PCM_FORMAT_S24_LE)) < 0) {
        fprintf(stderr, "Setting of capture hwparams failed: %s\n", snd_strerror(err));
        return -1;
    }
    if ((err = set_swparams(capture_handle, sw)) < 0) {
        printf("Setting of swparams capture failed: %s\n", snd_strerror(err));
        return -1;
    }
    // playback starts by itself at the start threshold; capture is started here
    if ((err = snd_pcm_start(capture_handle)) < 0) {
        fprintf(stderr, "Capture start (%s)\n", snd_strerror(err));
        return -1;
    }
    cap_resume_wait = cap_resume_tries = 0;
    capture_ready = true;
    return err;
}

int alsa_open(void)
{
    snd_pcm_hw_params_t *hw;
    snd_pcm_sw_params_t *sw;
    snd_pcm_hw_params_alloca(&hw);
    snd_pcm_sw_params_alloca(&sw);
    if (open_playback(hw, sw) < 0)
        return -1;
    return open_capture(hw, sw);
}

void alsa_close(void)
{
    playback_ready = capture_ready = false;
    if (playback_handle) {
        snd_pcm_close(playback_handle);
        playback_handle = nullptr;
    }
    if (capture_handle) {
        snd_pcm_close(capture_handle);
        capture_handle = nullptr;
    }
}

int alsa_play48(int32_t *samples) noexcept
{
    if (!playback_ready)
        return 0;
    if (as_frames(snd_pcm_avail(playback_handle)) <= ALSA_BLOCK_FRAMES)
        return 0; // no room: the block is dropped
    snd_pcm_sframes_t w = 0;
    for (int writes = 1;; writes++) {
        w = snd_pcm_writei(playback_handle, samples, ALSA_BLOCK_FRAMES);
        if (w != ALSA_BLOCK_FRAMES)
            alsa_ply_or++;
        // less than half full: repeat the block rather than run dry
        if (as_frames(snd_pcm_avail_update(playback_handle)) <= ALSA_THRESHOLD_FRAMES)
            break;
        if (writes == ALSA_LOOP_MAX) {
            alsa_loop_cut++;
            break;
        }
        alsa_ply_rewrite++;
    }
    return int(w);
}

// One resume attempt on a suspended capture stream. -EAGAIN leaves it for
// a later call instead of sleeping in the cycle; the last allowed -EAGAIN
// and any other failure fall back to prepare.
static void cap_try_resume() noexcept
{
    const int r = snd_pcm_resume(capture_handle);
    if (r == -EAGAIN && ++cap_resume_tries < ALSA_RESUME_TRIES) {
        cap_resume_wait = ALSA_RESUME_GAP;
        return;
    }
    cap_resume_wait = 0;
    if (r == -EAGAIN)
        alsa_loop_cut++;
    if (r < 0)
        snd_pcm_prepare(capture_handle);
}

static void cap_recover(int err) noexcept
{
    alsa_cap_xrun++;
    if (err == -EPIPE) {
        snd_pcm_prepare(capture_handle);
    } else if (err == -ESTRPIPE) {
        cap_resume_tries = 0;
        cap_try_resume();
    } else {
        snd_pcm_drop(capture_handle);
        snd_pcm_start(capture_handle);
    }
}

// 24-bit values to full 32-bit ones; a value with bit 23 clear keeps its
// upper bits. The peak is a signed maximum, so silence below zero leaves it.
static void cap_sign_extend(int32_t *samples) noexcept
{
    int peak = alsa_cap_peak;
    for (int i = 0; i < ALSA_BLOCK_VALUES; i++) {
        uint32_t u = uint32_t(samples[i]);
        if (u & 0x00800000u)
            u |= 0xFF000000u;
        const int32_t v = int32_t(u);
        if (v > peak)
            peak = v;
        samples[i] = v;
    }
    if (peak > alsa_cap_peak)
        alsa_cap_peak = peak;
}

// Debug line without stdio (the cycle must not wait for the supervisor's
// stdio locks), queued for the supervisor to print.
static void cap_print_short(snd_pcm_sframes_t r) noexcept
{
    char line[40];
    const int n = snprintf(line, sizeof line, "snd_pcm_readi: %d\n", int(r));
    if (n > 0)
        rt_report(STDOUT_FILENO, line, size_t(n));
}

// What the card did not fill is silence: the buffer comes in holding the
// block just played, which must never reach the microphone flows.
static int cap_silence(int32_t *samples, int from_frame = 0) noexcept
{
    constexpr int per_frame = ALSA_BLOCK_VALUES / ALSA_BLOCK_FRAMES;
    memset(samples + from_frame * per_frame, 0, size_t(ALSA_BLOCK_VALUES - from_frame * per_frame) * sizeof *samples);
    return 0;
}

int alsa_rec48(int32_t *samples) noexcept
{
    if (!capture_ready)
        return cap_silence(samples); // no card: a silent microphone
    if (cap_resume_wait > 0) {
        if (--cap_resume_wait > 0)
            return cap_silence(samples);
        cap_try_resume();
        if (cap_resume_wait > 0)
            return cap_silence(samples);
    }
    if (as_frames(snd_pcm_avail(capture_handle)) <= ALSA_BLOCK_FRAMES)
        return cap_silence(samples);
    snd_pcm_sframes_t r = 0;
    bool got = false;
    for (int reads = 1;; reads++) {
        r = snd_pcm_readi(capture_handle, samples, ALSA_BLOCK_FRAMES);
        if (r < 0) {
            alsa_cap_err++;
            cap_recover(int(r));
            if (!got)
                cap_silence(samples);
        } else {
            got = true;
            if (r < ALSA_BLOCK_FRAMES)
                cap_silence(samples, int(r));
            alsa_cap_samples += static_cast<unsigned long>(r);
            if (r != ALSA_BLOCK_FRAMES) {
                alsa_cap_low++;
                if (alsa_debug)
                    cap_print_short(r);
            }
        }
        cap_sign_extend(samples);
        if (cap_resume_wait > 0)
            break; // still suspended: nothing more to read this time
        // more than half full: drop blocks to keep the capture latency bounded
        if (as_frames(snd_pcm_avail_update(capture_handle)) <= ALSA_THRESHOLD_FRAMES)
            break;
        if (reads == ALSA_LOOP_MAX) {
            alsa_loop_cut++;
            break;
        }
        alsa_cap_reread++;
    }
    return int(r);
}
