#include "daemon/vox.h"

int vox_notify_pending;

void vox_frame(uint32_t) noexcept {}
void vox_notify() noexcept { vox_notify_pending = 0; }
int vox_message(char *, int) noexcept { return 0; }
