#include "aec_backends.h"
#include "eaec/eaec.h"

namespace {
struct ours {
    HANDLE_EAEC_PARAMS p;
    HANDLE_EAEC_STATE s;
};

void *ours_create()
{
    EAEC_CONFIG cfg{48000, 1, 1, -12, -10, 20, 0}; // the daemon's configuration
    auto *o = new ours{nullptr, nullptr};
    if (eaec_init(&o->p, &o->s, &cfg) != EAEC_STATUS_OK) {
        delete o;
        return nullptr;
    }
    return o;
}

void ours_process(void *h, const int16_t *spk, const int16_t *mic, int16_t *out)
{
    auto *o = static_cast<ours *>(h);
    eaec_processframe(o->p, o->s, spk, mic, out);
}

void ours_destroy(void *h)
{
    auto *o = static_cast<ours *>(h);
    eaec_done(o->p, o->s);
    delete o;
}
} // namespace

aec_backend aec_backend_ours() { return {"eaec", ours_create, ours_process, ours_destroy}; }
