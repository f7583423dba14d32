// The PCM calls of the sound-card module, answered from fake_pcm.h's
// scripts instead of a device.
#include "fake_pcm.h"

#include <alsa/asoundlib.h>
#include <algorithm>
#include <cstring>

fake_pcm_stream fake_play, fake_cap;
fake_pcm_fault fake_fault;

struct _snd_pcm {
    int stream;
};

namespace {
_snd_pcm handles[2] = {{0}, {1}};
int sw_stream, fault_seen;

fake_pcm_stream &of(const snd_pcm_t *pcm) { return pcm->stream == 0 ? fake_play : fake_cap; }
fake_pcm_stream &note(snd_pcm_t *pcm, const char *call)
{
    of(pcm).calls.push_back(call);
    return of(pcm);
}

// The injected error when this is the chosen call, else 0.
int fault(int stream, const char *call)
{
    if (fake_fault.stream != stream || fake_fault.call != call)
        return 0;
    return ++fault_seen == fake_fault.nth ? fake_fault.err : 0;
}

template <class T> T next(std::deque<T> &q, T otherwise)
{
    if (q.empty())
        return otherwise;
    const T v = q.front();
    q.pop_front();
    return v;
}
} // namespace

int fake_pcm_stream::count(const std::string &call) const { return int(std::count(calls.begin(), calls.end(), call)); }

void fake_pcm_reset()
{
    fake_play = fake_cap = fake_pcm_stream{};
    fake_fault = fake_pcm_fault{};
    fault_seen = 0;
}

extern "C" {
const char *snd_strerror(int errnum) { return strerror(errnum < 0 ? -errnum : errnum); }
size_t snd_pcm_hw_params_sizeof(void) { return 64; }
size_t snd_pcm_sw_params_sizeof(void) { return 64; }

int snd_pcm_open(snd_pcm_t **pcm, const char *, snd_pcm_stream_t stream, int mode)
{
    const int s = stream == SND_PCM_STREAM_PLAYBACK ? 0 : 1;
    if (int e = fault(s, __func__))
        return e;
    if (mode != SND_PCM_NONBLOCK)
        return -EINVAL; // a blocking device could hold up the cycle
    *pcm = &handles[s];
    return 0;
}
int snd_pcm_close(snd_pcm_t *pcm) { return note(pcm, "close"), 0; }

int snd_pcm_hw_params_any(snd_pcm_t *pcm, snd_pcm_hw_params_t *)
{ return of(pcm).pending = fake_hw{}, fault(pcm->stream, __func__); }
int snd_pcm_hw_params_set_access(snd_pcm_t *pcm, snd_pcm_hw_params_t *, snd_pcm_access_t v)
{ return of(pcm).pending.access = v, fault(pcm->stream, __func__); }
int snd_pcm_hw_params_set_format(snd_pcm_t *pcm, snd_pcm_hw_params_t *, snd_pcm_format_t v)
{ return of(pcm).pending.format = v, fault(pcm->stream, __func__); }
int snd_pcm_hw_params_set_rate_near(snd_pcm_t *pcm, snd_pcm_hw_params_t *, unsigned int *v, int *)
{ return of(pcm).pending.rate = *v, fault(pcm->stream, __func__); }
int snd_pcm_hw_params_set_channels(snd_pcm_t *pcm, snd_pcm_hw_params_t *, unsigned int v)
{ return of(pcm).pending.channels = v, fault(pcm->stream, __func__); }

int snd_pcm_hw_params_set_buffer_size_near(snd_pcm_t *pcm, snd_pcm_hw_params_t *, snd_pcm_uframes_t *v)
{
    of(pcm).pending.buffer_size = *v;
    const int e = fault(pcm->stream, __func__);
    if (e)
        *v = 400; // a card may adjust the count even when it fails
    return e;
}

int snd_pcm_hw_params(snd_pcm_t *pcm, snd_pcm_hw_params_t *)
{
    const int e = fault(pcm->stream, __func__);
    if (!e)
        of(pcm).installed.push_back(of(pcm).pending);
    return e;
}

int snd_pcm_sw_params_current(snd_pcm_t *pcm, snd_pcm_sw_params_t *)
{ return sw_stream = pcm->stream, fault(pcm->stream, __func__); }
int snd_pcm_sw_params_set_start_threshold(snd_pcm_t *pcm, snd_pcm_sw_params_t *, snd_pcm_uframes_t v)
{ return of(pcm).start_threshold = v, fault(pcm->stream, __func__); }
int snd_pcm_sw_params_get_boundary(const snd_pcm_sw_params_t *, snd_pcm_uframes_t *v)
{ return *v = FAKE_BOUNDARY, fault(sw_stream, __func__); }
int snd_pcm_sw_params_set_stop_threshold(snd_pcm_t *pcm, snd_pcm_sw_params_t *, snd_pcm_uframes_t v)
{ return of(pcm).stop_threshold = v, fault(pcm->stream, __func__); }
int snd_pcm_sw_params_set_avail_min(snd_pcm_t *pcm, snd_pcm_sw_params_t *, snd_pcm_uframes_t v)
{ return of(pcm).avail_min = v, fault(pcm->stream, __func__); }
int snd_pcm_sw_params(snd_pcm_t *pcm, snd_pcm_sw_params_t *) { return fault(pcm->stream, __func__); }

int snd_pcm_start(snd_pcm_t *pcm) { return note(pcm, "start"), fault(pcm->stream, __func__); }
int snd_pcm_prepare(snd_pcm_t *pcm) { return note(pcm, "prepare"), 0; }
int snd_pcm_drop(snd_pcm_t *pcm) { return note(pcm, "drop"), 0; }
int snd_pcm_resume(snd_pcm_t *pcm) { return next(note(pcm, "resume").resume, 0); }
snd_pcm_sframes_t snd_pcm_avail(snd_pcm_t *pcm) { return next(note(pcm, "avail").avail, of(pcm).avail_default); }
snd_pcm_sframes_t snd_pcm_avail_update(snd_pcm_t *pcm)
{ return next(note(pcm, "avail_update").avail, of(pcm).avail_default); }

snd_pcm_sframes_t snd_pcm_writei(snd_pcm_t *pcm, const void *buffer, snd_pcm_uframes_t)
{
    fake_pcm_stream &s = note(pcm, "writei");
    s.written.emplace_back();
    memcpy(s.written.back().data(), buffer, sizeof s.written.back());
    return next(s.io, 48L);
}

snd_pcm_sframes_t snd_pcm_readi(snd_pcm_t *pcm, void *buffer, snd_pcm_uframes_t)
{
    fake_pcm_stream &s = note(pcm, "readi");
    const long r = next(s.io, 48L);
    for (long i = 0; i < 2 * r && !s.capture.empty(); i++)
        static_cast<int32_t *>(buffer)[i] = next(s.capture, 0);
    return r;
}
} // extern "C"
