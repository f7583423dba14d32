#include "audio/CG_LimCom_interface.h"

#include <cstring>

void CG_limcom_init(void) {}
void CG_limcom_init_instance(LimCom_Instance *inst, const limcom_params *, int nchan)
{
    memset(inst, 0, sizeof *inst);
    inst->nchan = nchan;
}
int CG_limcom_is_enabled(const LimCom_Instance *inst) noexcept { return inst->current_params.enable; }
void CG_limcom_process(LimCom_Instance *) noexcept {}
void cg_limcom_run(uint32_t) noexcept {}
void cg_limcom_run_src(rtp_src *) noexcept {}
