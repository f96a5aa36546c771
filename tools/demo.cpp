// Sends a few requests through the library and prints the answers.
#include <stdio.h>
#include <stdlib.h>

#include "kepHandle.h"

int main() {
    const char *requests[] = {
        "{\"method\":\"get\"}",
        "{\"method\":\"GET\"}",
        "not json",
    };
    for (const char *req : requests) {
        char *rsp = nullptr;
        int rc = standardKepReqHandle(req, &rsp);
        printf("request:  %s\nresult:   %d\nresponse: %s\n\n", req, rc, rsp ? rsp : "(none)");
        free(rsp);
    }
    return 0;
}
