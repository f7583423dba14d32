#include "support/alsa_file.h"

#include "support/proc.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

alsa_file_card::alsa_file_card(const std::string &capture_bytes)
    : play_path(tmp_file("", ".raw")), cap_path(tmp_file(capture_bytes, ".raw"))
{
    conf_path = tmp_file(R"(
pcm.!hw {
    @args [ CARD DEV SUBDEV ]
    @args.CARD { type string default "0" }
    @args.DEV { type integer default 0 }
    @args.SUBDEV { type integer default -1 }
    type asym
    playback.pcm { type file slave.pcm "null" format "raw" file ")" + play_path + R"(" }
    capture.pcm { type file slave.pcm "null" format "raw" file "/dev/null" infile ")" + cap_path + R"(" }
}
)");
    setenv("ALSA_CONFIG_PATH", ("/usr/share/alsa/alsa.conf:" + conf_path).c_str(), 1);
}

alsa_file_card::~alsa_file_card()
{
    unsetenv("ALSA_CONFIG_PATH");
    for (const std::string &p : {play_path, cap_path, conf_path})
        unlink(p.c_str());
}
