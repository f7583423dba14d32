// The sound card as files: "hw" redefined through ALSA_CONFIG_PATH as a
// file plugin over the null device, so that alsa-lib plays into one file
// and captures from another; the device never fills nor drains.
#pragma once
#include <string>

// Sets ALSA_CONFIG_PATH for the process (and the daemons it starts) while
// it lives; removes the files and the variable afterwards.
struct alsa_file_card {
    std::string play_path, cap_path, conf_path;
    explicit alsa_file_card(const std::string &capture_bytes);
    ~alsa_file_card();
    alsa_file_card(const alsa_file_card &) = delete;
    alsa_file_card &operator=(const alsa_file_card &) = delete;
};
