// The method table: requests name their method by these entries. Writable, so that
// a process linking the library can disable a method by clearing its handler.
#include "kep_request.h"

extern "C" {
__attribute__((visibility("default"))) MethodMsgHandler gPassthroughHandler[methodMsgHandlerNum] = {
    {"get", nullptr},
    {"set", nullptr},
    {"add", nullptr},
    {"delete", nullptr},
    {"do", nullptr},
    {"", nullptr},
};
}
