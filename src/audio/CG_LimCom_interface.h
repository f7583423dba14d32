// Limiter/compressor interface: one instance per flow and per outgoing
// stream, a one-channel or a stereo-linked model, 48-sample blocks, and
// the two places in the cycle where the daemon runs them.
#pragma once
#include "audio/CG_LimCom.h"
#include "daemon/records.h"

#include <cstdint>

// [init] Module start-up; nothing to do.
void CG_limcom_init(void);

// [sup] (Re)initialises inst: clears it, takes the defaults of the model
// nchan selects, writes attack, release, threshold and ratio of params
// over them as given (0 included, no range checks), copies params into
// current_params and, when params->enable is set, initialises the model so
// the envelope starts from zero. params null or enable 0: inactive.
// Safe while the cycle may be processing inst: if inst is enabled, it is
// first disabled (published) and grace_wait() lets the cycle leave it;
// the new enable word is published last, after everything else is in
// place. So callers need no grace period of their own; callers resetting
// many enabled instances may CG_limcom_disable them all, grace_wait()
// once, and then initialise each without a further wait.
void CG_limcom_init_instance(LimCom_Instance *inst, const limcom_params *params, int nchan);
// [sup] Field by field (the record has padding before the first double;
// the doubles compare by their bits): 1 when a and b are the same values.
bool limcom_params_equal(const limcom_params &a, const limcom_params &b);
// [sup] Publishes enable 0: the cycle stops using inst from its next
// block on. Nothing else changes; reading current_params.enable now gives
// 0, so the instance no longer compares equal to enabled parameters.
void CG_limcom_disable(LimCom_Instance *inst);
// [sup][rt] current_params.enable, read as the word the supervisor
// publishes (acquire): when non-zero, everything init_instance wrote is
// visible.
int CG_limcom_is_enabled(const LimCom_Instance *inst) noexcept;
// [rt] When enabled and nchan is 1 or 2, one block inputBuffer ->
// outputBuffer; otherwise neither buffer is touched. Faithful to the
// model: a threshold of 0 makes the output NaN (the glue below guards).
void CG_limcom_process(LimCom_Instance *inst) noexcept;

// [rt] For every flow (in table order) whose limiter is enabled: its 48 ring
// samples at rtp_ts .. rtp_ts+47 (column = flow index) go through the
// limiter and back into the same slots.
void cg_limcom_run(uint32_t rtp_ts) noexcept;
// [rt] When the stream's limiter is enabled: feeds limiter channel 0 from
// mix_out rows 0..47 of mix output mix[ch0], and for a two-channel
// limiter channel 1 from mix[ch1], and runs it; the sender and the sound
// card then take outputBuffer instead of the mix outputs.
// Selectors: the loader accepts 0..7, a stream has a pair of mix outputs.
// A selector names entry (selector mod 2), so 2, 4, 6 act as 0 and 3, 5, 7
// as 1 (channel pairs counted on); a one-channel stream has only mix[0],
// which every selector names. A mix index outside 0..15 feeds silence.
//
// Both glue steps keep the ring and the streams finite: a sample the
// limiter returns as NaN or infinity is written as 0. The models check no
// ranges, so an enabled limiter whose threshold, attack or release is 0
// (not given in lce) turns non-finite for good: its flow or stream is then
// silent, rather than poisoning every mix the flow feeds or the packets.
void cg_limcom_run_src(rtp_src *s) noexcept;
