/* A plain C program built against the installed headers and libraries. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <kepHandle.h>
#include <kep_platform.h>

int main(void) {
    char *rsp = NULL;
    LstList list;
    LstNode a, b;
    int rc = standardKepReqHandle("{}", &rsp);

    if (rc != 0 || !rsp || !strstr(rsp, "-7000")) {
        fprintf(stderr, "unexpected answer %d %s\n", rc, rsp ? rsp : "(null)");
        return 1;
    }
    free(rsp);
    lstInit(&list);
    lstAdd(&list, &a);
    lstAdd(&list, &b);
    if (lstCount(&list) != 2 || lstFirst(&list) != &a || lstNext(&a) != &b) return 1;
    printf("consumer: ok\n");
    return 0;
}
