// Voice activity per flow, and the JSON datagram that lists the talkers.
//
// Each flow with a non-zero threshold is active while its hold counter
// (vox_activeto, in blocks) is above 0; a level at or above the threshold
// restarts the counter. Whenever a flow starts or stops being active, and
// after every reload, the whole list of active flows goes out as one UDP
// datagram {"vox":["name",...]} to 127.0.0.1:vox_notify_port.
#pragma once
#include "daemon/records.h"

#include <cstdint>

// Longest datagram: the opening, 48 quoted names of up to 64 characters
// with their commas, and the closing.
inline constexpr int VOX_MSG_MAX = 8 + 48 * (64 + 3) + 2;

// One writer per word: the cycle alone writes vox_notify_pending (a
// notification is due and not yet sent); the supervisor asks for one after
// a reload through vox_notify_request(), a counter only it advances.
extern int vox_notify_pending;
extern uint32_t vox_notify_requests;

// [sup] Asks the cycle for a notification at its next block.
void vox_notify_request() noexcept;

// [sup] 1 when a and b are the same settings (the threshold by its bits).
bool vox_cfg_equal(const pelod_vox_cfg &a, const pelod_vox_cfg &b);

// [rt] Per-block detector over the 48 flows, called after the echo
// canceller and before mixing. Clears every flow's level, zeroes the 48
// ring samples of this block of a gated flow that is not active, and calls
// vox_notify() when a flow changed or a notification was already due.
void vox_frame(uint32_t rtp_ts) noexcept;
// [rt] Sends the list of active flows to 127.0.0.1:vox_notify_port from a
// non-blocking socket made on first use. When the socket cannot be made it
// reports "pelod: vox_notify" (rate-limited) and leaves vox_notify_pending
// set, so the next block tries again; a failed send is not retried.
void vox_notify() noexcept;
// [rt] Builds the datagram text into buf (not terminated, never more than
// buf_len bytes); returns its length.
int vox_message(char *buf, int buf_len) noexcept;
// [sup] Closes the notifier socket (tests; the daemon keeps it for life).
void vox_notify_close();
