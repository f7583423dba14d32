// Voice activity per flow, and the JSON datagram that lists the talkers.
#pragma once
#include <cstdint>

struct pelod_vox_cfg {
    float threshold_lin; // linear level; 0 = detection off
    int holdtime;        // ms = blocks
    int gate;            // mute the flow while inactive
};

extern int vox_notify_pending; // a notification is due

// [rt] Per-block detector over the 48 flows; gates silent flows' ring
// samples of this block; calls vox_notify() when something changed.
void vox_frame(uint32_t rtp_ts) noexcept;
// [rt] Sends {"vox":["name",...]} to 127.0.0.1:vox_notify_port. Leaves
// vox_notify_pending set when the socket cannot be made.
void vox_notify() noexcept;
// Builds the datagram text into buf (not terminated); returns its length.
int vox_message(char *buf, int buf_len) noexcept;
