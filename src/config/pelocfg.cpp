#include "config/pelocfg.h"

src srcs[SRCS_MAX];
int srcs_used;
char ifs[40];
dlist xpts = {&xpts, &xpts}, xpts_del = {&xpts_del, &xpts_del}, xpts_new = {&xpts_new, &xpts_new};

int pelocfg_load(const char *) { return 0; }
int pelocfg_load_glb(const char *) { return 0; }
int pelocfg_load_xpt(const char *) { return 0; }
int pelocfg_load_src(const char *) { return 0; }
void rtp_fmt_parse(rtp_fmt *, const char *, const char *) {}
void pelocfg_limcom(limcom_params *, const char *) {}
void pelocfg_vox(pelod_vox_cfg *, const char *) {}
void rtpa2ep(const char *, const char *, rtp_ep_spec *, int) {}
