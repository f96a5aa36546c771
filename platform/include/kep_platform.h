/* Every platform call the library makes. */
#ifndef KEP_PLATFORM_H
#define KEP_PLATFORM_H

#include "kep_pf_debug.h"
#include "kep_pf_json.h"
#include "kep_pf_rpc.h"
#include "kep_pf_sys.h"

#endif
