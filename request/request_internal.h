// Internal interface of the request entry, shared by the method handlers and tests.
#pragma once

#include "kep_request.h"

namespace kep {

// Looks the method text (JSON text, quotes included) up in gPassthroughHandler and
// runs the first matching non-null handler. Asks for a delayed configuration save
// before the handler of every method but "get". Returns 0 with the handler's object
// (possibly null) stored in *response, or an error code with nothing stored (a
// partial object of a failed handler is released). REQUIRES: response != null.
int dispatchByMethod(const char *method, json_object *request, json_object **response);

}  // namespace kep
