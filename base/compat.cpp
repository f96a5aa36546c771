// Exports kept only so that processes built against earlier releases still link and
// load: the library gives them no behaviour of their own. New code has no use for them.
#include "base/api.h"
#include "kepHandle.h"

// Exported data is defined inside a linkage block: "extern" on a definition with an
// initializer draws a warning. No code of the library reads or writes these.
extern "C" {
__attribute__((visibility("default"))) unsigned char gSetFilter[KEP_FILTER_SIZE] = {};
__attribute__((visibility("default"))) unsigned char gDoFilter[KEP_FILTER_SIZE] = {};
__attribute__((visibility("default"))) int modelTid = 0;
}

KEP_API int filterDispatch(void) {
    return 0;
}

KEP_API const char *getValueFromJsonObj_kep(json_object *obj, const char *key) {
    return getValueFromJsonObj(obj, key);
}

KEP_API json_object *getNexlSubJsonObj(json_object *obj) {
    return obj;
}

// The library takes no lock of its own; the store still brackets every call into a
// dynamic owner's reader or writer with these, as it always has.
KEP_API int modelLock(void) {
    return 0;
}

KEP_API void modelUnlock(int token) {
    (void)token;
}
