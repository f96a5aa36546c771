// The method table: requests name their method by these entries. Writable, so that
// a process linking the library can disable a method by clearing its handler.
#include "kep_request.h"
#include "request/method_handlers.h"

extern "C" {
__attribute__((visibility("default"))) MethodMsgHandler gPassthroughHandler[methodMsgHandlerNum] = {
    {"get", kep::kepMethodGet},    {"set", kep::kepMethodSet}, {"add", kep::kepMethodAdd},
    {"delete", kep::kepMethodDel}, {"do", kep::kepMethodDo},   {"", nullptr},
};
}
