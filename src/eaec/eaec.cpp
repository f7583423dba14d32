#include "eaec/eaec.h"

void eaec_lib_startup(void) {}
int eaec_getLibInfo(LIB_INFO *) { return -1; }
void eaec_defaultconfig(EAEC_CONFIG *) {}
EAEC_STATUS eaec_init(HANDLE_EAEC_PARAMS *, HANDLE_EAEC_STATE *, EAEC_CONFIG *) { return EAEC_STATUS_OUT_OF_MEMORY; }
void eaec_processframe(const HANDLE_EAEC_PARAMS, HANDLE_EAEC_STATE, const short *, const short *, INT_PCM *) {}
void eaec_done(HANDLE_EAEC_PARAMS, HANDLE_EAEC_STATE) {}
