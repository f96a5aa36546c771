/* The whole public interface of libkepHandle. */
#ifndef KEP_HANDLE_H
#define KEP_HANDLE_H

#include "kep_config.h"
#include "kep_diag.h"
#include "kep_json.h"
#include "kep_list.h"
#include "kep_model.h"
#include "kep_request.h"
#include "kep_text.h"
#include "kep_tree.h"
#include "kep_xml.h"

#endif
