// Limiter parameters as a configuration's "lce" gives them, enabled.
#pragma once
#include "audio/CG_LimCom_interface.h"

#include <cstring>

inline limcom_params lce(double attack, double release, double threshold, double ratio, int ch0 = 0, int ch1 = 1)
{
    limcom_params p;
    std::memset(&p, 0, sizeof p); // padding too: instances compare it byte for byte
    p.enable = 1;
    p.ch0 = ch0;
    p.ch1 = ch1;
    p.attack = attack;
    p.release = release;
    p.threshold = threshold;
    p.ratio = ratio;
    return p;
}
