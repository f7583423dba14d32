// Synthetic test signals for the echo canceller benchmark: speech-like
// talkers, room echo paths (bulk delay plus exponentially decaying
// reverberation), and the scenario that chains far-end single talk,
// near-end single talk, double talk and an echo-path change.
#pragma once
#include <cstdint>
#include <vector>

inline constexpr int AEC_RATE = 48000;
inline constexpr int AEC_FRAME = 480;

// Speech-like signal: syllables of voiced (pulse train through two formant
// resonators) or unvoiced (band-passed noise) sound with raised-cosine
// envelopes, separated by short gaps and longer pauses. RMS over the
// whole signal is `rms_dbfs` (0 dBFS = full-scale 16-bit sine peak 1.0).
std::vector<double> aec_speech(uint32_t seed, int samples, double rms_dbfs);
// Room response: `bulk` samples of silence, a direct tap, then Gaussian
// reverberation decaying 60 dB in rt60 seconds (slightly low-passed).
std::vector<double> aec_room(uint32_t seed, double rt60, int bulk);
// Linear convolution, truncated to x's length (FFT based).
std::vector<double> aec_convolve(const std::vector<double> &x, const std::vector<double> &h);
std::vector<double> aec_white(uint32_t seed, int samples, double rms_dbfs);
double aec_power(const std::vector<double> &x, int from, int to);

// Segment boundaries of the scenario, in seconds.
struct aec_timeline {
    static constexpr double fst_end = 8.0;      // far-end single talk 0..8
    static constexpr double nst_begin = 8.5;    // near-end single talk 8.5..12
    static constexpr double nst_end = 12.0;
    static constexpr double dt_begin = 12.5;    // double talk 12.5..18
    static constexpr double change = 18.0;      // new echo path, far-end only 18..26
    static constexpr double total = 26.0;
};

struct aec_scenario {
    double rt60;
    std::vector<int16_t> spk;       // loudspeaker reference
    std::vector<int16_t> mic_plus;  // echo + near + noise
    std::vector<int16_t> mic_minus; // echo - near + noise (phase-inversion pair)
    std::vector<int16_t> mic_inv;   // echo - near - noise (its pair leaves the echo alone)
    std::vector<double> echo, near, noise;
    std::vector<uint8_t> far_active; // per sample: far end speaking (for convergence windows)
};

// Variants of the scenario: loudspeaker saturation (echo made from
// tanh(drive x) / drive; 0 = linear), the bulk delay of the echo paths in
// samples, and a white far end instead of speech (full band).
struct aec_variant {
    double drive = 0.0;
    int bulk = 480;
    bool white_far = false;
};
// The whole scenario for one room (ERL 8 dB, noise -65 dBFS).
aec_scenario aec_make_scenario(double rt60, uint32_t seed, const aec_variant &v = {});
// Power spectra of 20 ms Hann frames (960 samples, hop 480) of x[from..to):
// frame-major, 513 bins (0..24 kHz) per frame.
inline constexpr int AEC_STFT_BINS = 513;
std::vector<double> aec_stft_power(const std::vector<double> &x, int from, int to);
