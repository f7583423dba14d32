// The PCM calls of the sound-card module, answered from fake_pcm.h's
// scripts instead of a device.
#include "fake_pcm.h"

#include <alsa/asoundlib.h>
#include <cstring>

fake_pcm_stream fake_play, fake_cap;
fake_pcm_fault fake_fault;

struct _snd_pcm {
    int stream;
};

namespace {
_snd_pcm handles[2] = {{0}, {1}};

struct hw_pending {
    int format = -1, access = -1;
    unsigned rate = 0, channels = 0;
    unsigned long buffer_size = 0;
};
hw_pending pending[2];
int sw_stream = 0;
int fault_seen = 0;

fake_pcm_stream &of(snd_pcm_t *pcm) { return pcm->stream == 0 ? fake_play : fake_cap; }

void note(snd_pcm_t *pcm, const char *call)
{
    if (of(pcm).record)
        of(pcm).calls.push_back(call);
}

// The injected error when this is the chosen call, else 0.
int fault(int stream, const char *call)
{
    if (fake_fault.stream != stream || fake_fault.call != call)
        return 0;
    return ++fault_seen == fake_fault.nth ? fake_fault.err : 0;
}

long next_avail(fake_pcm_stream &s)
{
    if (s.avail.empty())
        return s.avail_default;
    const long v = s.avail.front();
    s.avail.pop_front();
    return v;
}

long next_io(fake_pcm_stream &s)
{
    if (s.io.empty())
        return 48;
    const long v = s.io.front();
    s.io.pop_front();
    return v;
}
} // namespace

int fake_pcm_stream::count(const std::string &call) const
{
    int n = 0;
    for (const std::string &c : calls)
        n += c == call;
    return n;
}

void fake_pcm_reset()
{
    fake_play = fake_pcm_stream{};
    fake_cap = fake_pcm_stream{};
    fake_fault = fake_pcm_fault{};
    pending[0] = pending[1] = hw_pending{};
    fault_seen = 0;
}

extern "C" {

const char *snd_strerror(int errnum)
{
    return strerror(errnum < 0 ? -errnum : errnum);
}

int snd_pcm_open(snd_pcm_t **pcm, const char *, snd_pcm_stream_t stream, int mode)
{
    const int s = stream == SND_PCM_STREAM_PLAYBACK ? 0 : 1;
    if (int e = fault(s, "snd_pcm_open"))
        return e;
    if (mode != SND_PCM_NONBLOCK)
        return -EINVAL;
    *pcm = &handles[s];
    of(*pcm).open = true;
    return 0;
}

int snd_pcm_close(snd_pcm_t *pcm)
{
    of(pcm).open = false;
    note(pcm, "close");
    return 0;
}

size_t snd_pcm_hw_params_sizeof(void) { return 64; }
size_t snd_pcm_sw_params_sizeof(void) { return 64; }

int snd_pcm_hw_params_any(snd_pcm_t *pcm, snd_pcm_hw_params_t *)
{
    pending[pcm->stream] = hw_pending{};
    return fault(pcm->stream, "snd_pcm_hw_params_any");
}

int snd_pcm_hw_params_set_access(snd_pcm_t *pcm, snd_pcm_hw_params_t *, snd_pcm_access_t access)
{
    pending[pcm->stream].access = access;
    return fault(pcm->stream, "snd_pcm_hw_params_set_access");
}

int snd_pcm_hw_params_set_format(snd_pcm_t *pcm, snd_pcm_hw_params_t *, snd_pcm_format_t format)
{
    pending[pcm->stream].format = format;
    return fault(pcm->stream, "snd_pcm_hw_params_set_format");
}

int snd_pcm_hw_params_set_rate_near(snd_pcm_t *pcm, snd_pcm_hw_params_t *, unsigned int *val, int *dir)
{
    if (dir)
        return -EINVAL; // the module passes no direction
    pending[pcm->stream].rate = *val;
    return fault(pcm->stream, "snd_pcm_hw_params_set_rate_near");
}

int snd_pcm_hw_params_set_channels(snd_pcm_t *pcm, snd_pcm_hw_params_t *, unsigned int val)
{
    pending[pcm->stream].channels = val;
    return fault(pcm->stream, "snd_pcm_hw_params_set_channels");
}

int snd_pcm_hw_params_set_buffer_size_near(snd_pcm_t *pcm, snd_pcm_hw_params_t *, snd_pcm_uframes_t *val)
{
    pending[pcm->stream].buffer_size = *val;
    if (int e = fault(pcm->stream, "snd_pcm_hw_params_set_buffer_size_near")) {
        *val = 400; // a card may adjust the count even when it fails
        return e;
    }
    return 0;
}

int snd_pcm_hw_params(snd_pcm_t *pcm, snd_pcm_hw_params_t *)
{
    fake_pcm_stream &s = of(pcm);
    note(pcm, "hw_params");
    if (int e = fault(pcm->stream, "snd_pcm_hw_params"))
        return e;
    const hw_pending &p = pending[pcm->stream];
    s.formats.push_back(p.format);
    s.access = p.access;
    s.rate = p.rate;
    s.channels = p.channels;
    s.buffer_size = p.buffer_size;
    return 0;
}

int snd_pcm_sw_params_current(snd_pcm_t *pcm, snd_pcm_sw_params_t *)
{
    sw_stream = pcm->stream;
    return fault(pcm->stream, "snd_pcm_sw_params_current");
}

int snd_pcm_sw_params_set_start_threshold(snd_pcm_t *pcm, snd_pcm_sw_params_t *, snd_pcm_uframes_t val)
{
    of(pcm).start_threshold = val;
    return fault(pcm->stream, "snd_pcm_sw_params_set_start_threshold");
}

int snd_pcm_sw_params_get_boundary(const snd_pcm_sw_params_t *, snd_pcm_uframes_t *val)
{
    *val = FAKE_BOUNDARY;
    return fault(sw_stream, "snd_pcm_sw_params_get_boundary");
}

int snd_pcm_sw_params_set_stop_threshold(snd_pcm_t *pcm, snd_pcm_sw_params_t *, snd_pcm_uframes_t val)
{
    of(pcm).stop_threshold = val;
    return fault(pcm->stream, "snd_pcm_sw_params_set_stop_threshold");
}

int snd_pcm_sw_params_set_avail_min(snd_pcm_t *pcm, snd_pcm_sw_params_t *, snd_pcm_uframes_t val)
{
    of(pcm).avail_min = val;
    return fault(pcm->stream, "snd_pcm_sw_params_set_avail_min");
}

int snd_pcm_sw_params(snd_pcm_t *pcm, snd_pcm_sw_params_t *)
{
    note(pcm, "sw_params");
    return fault(pcm->stream, "snd_pcm_sw_params");
}

int snd_pcm_start(snd_pcm_t *pcm)
{
    note(pcm, "start");
    return fault(pcm->stream, "snd_pcm_start");
}

int snd_pcm_prepare(snd_pcm_t *pcm)
{
    note(pcm, "prepare");
    return 0;
}

int snd_pcm_drop(snd_pcm_t *pcm)
{
    note(pcm, "drop");
    return 0;
}

int snd_pcm_resume(snd_pcm_t *pcm)
{
    fake_pcm_stream &s = of(pcm);
    note(pcm, "resume");
    if (s.resume.empty())
        return 0;
    const int r = s.resume.front();
    s.resume.pop_front();
    return r;
}

snd_pcm_sframes_t snd_pcm_avail(snd_pcm_t *pcm)
{
    note(pcm, "avail");
    return next_avail(of(pcm));
}

snd_pcm_sframes_t snd_pcm_avail_update(snd_pcm_t *pcm)
{
    note(pcm, "avail_update");
    return next_avail(of(pcm));
}

snd_pcm_sframes_t snd_pcm_writei(snd_pcm_t *pcm, const void *buffer, snd_pcm_uframes_t size)
{
    fake_pcm_stream &s = of(pcm);
    note(pcm, "writei");
    const auto *v = static_cast<const int32_t *>(buffer);
    if (s.record)
        s.written.emplace_back(v, v + 2 * size);
    return next_io(s);
}

snd_pcm_sframes_t snd_pcm_readi(snd_pcm_t *pcm, void *buffer, snd_pcm_uframes_t)
{
    fake_pcm_stream &s = of(pcm);
    note(pcm, "readi");
    const long r = next_io(s);
    auto *v = static_cast<int32_t *>(buffer);
    for (long i = 0; i < 2 * r && !s.capture.empty(); i++) {
        v[i] = s.capture.front();
        s.capture.pop_front();
    }
    return r;
}

} // extern "C"
